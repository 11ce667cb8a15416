// The four flow table entities and their exported factories, in one include:
//
//   Zeb::Ptr<HoFlowConfig>    hoFlowConfigFactory(Zeb::String const& name);
//   Zeb::Ptr<HoFlowStatus>    hoFlowStatusFactory(Zeb::String const& name);
//   Zeb::Ptr<HoFlowCounter>   hoFlowCounterFactory(Zeb::String const& name);
//   Zeb::Ptr<HosStateCounter> hosStateCounterFactory(Zeb::String const& name);
//
// Each also answers to its class's static `<Class>Is(name)`. The entity comes
// back with notifications active and both collections on private tables.
#pragma once

#include "FlowTracking/HoFlowConfigEntity.h"
#include "FlowTracking/HoFlowCounterEntity.h"
#include "FlowTracking/HoFlowStatusEntity.h"
#include "FlowTracking/HosStateCounterEntity.h"
