// The four modules of flow tracking, built at load from the type records of
// the record files (FlowKeyModule.cpp, HoFlowConfigModule.cpp,
// HoFlowStatusModule.cpp, HosStateCounterModule.cpp, HoFlowCounterModule.cpp),
// and registered in the order of Modules.h. The type arrays, the modules and
// their initialisers stay in this one file: within a file, load-time
// initialisation runs in the order written, so each array is complete before
// its module registers it.
#include "FlowTracking/Modules.h"

#include <iostream>
#include <iterator>

#include "FlowTracking/ModuleTypes.h"

namespace {

using namespace FlowTracking::ModuleImpl;

char const* const hoFlowImports[] = {
    "_IntfId_2da7d77e_zebModule", "_IpAddr_a3351900_zebModule",
    "_Ip_bb465fd1_zebModule",     "_TrafficDirection_9bb1a0a1_zebModule",
    "_VlanId_a7f886d5_zebModule", "_FlowTable_b9c42498_zebModule",
};
char const* const ho6FlowImports[] = {
    "_IntfId_2da7d77e_zebModule", "_Ip6Addr_acdcd70c_zebModule",
    "_Ip_bb465fd1_zebModule",     "_TrafficDirection_9bb1a0a1_zebModule",
    "_VlanId_a7f886d5_zebModule", "_FlowTable_b9c42498_zebModule",
};
char const* const hoFlowConfigImports[] = {
    "_HoFlow_adf6f25f_zebModule",  "_Ho6Flow_e944d5d2_zebModule",
    "_IntfId_2da7d77e_zebModule",  "_EthAddr_8b9415d4_zebModule",
    "_VlanTag_28eef3c3_zebModule", "_CollectionControl_e111d95_zebModule",
};
char const* const hoFlowStatusImports[] = {
    "_HoFlow_adf6f25f_zebModule",           "_Ho6Flow_e944d5d2_zebModule",
    "_IntfId_2da7d77e_zebModule",           "_FlowTable_b9c42498_zebModule",
    "_CollectionControl_e111d95_zebModule", "_FlowTrackingCairnTypes_28a9bdff_zebModule",
};

Zeb::ZebTypeBase hoFlowTypes[] = {hoIpFlowKeyType()};
Zeb::ZebTypeBase ho6FlowTypes[] = {hoIp6FlowKeyType()};

}  // namespace

extern "C" {
Zeb::Module _HoFlow_adf6f25f_zebModule("_HoFlow_adf6f25f_zebModule", hoFlowTypes, hoFlowImports);
Zeb::Module _Ho6Flow_e944d5d2_zebModule("_Ho6Flow_e944d5d2_zebModule", ho6FlowTypes,
                                        ho6FlowImports);
}

namespace {

// In the order of HoFlowConfigIndex and HoFlowStatusIndex.
Zeb::ZebTypeBase hoFlowConfigTypes[] = {
    hoIpFlowConfigType(),
    hoIp6FlowConfigType(),
    hoFlowConfigType(),
};
static_assert(std::size(hoFlowConfigTypes) == HoFlowConfigIndex::count);

Zeb::ZebTypeBase hoFlowStatusTypes[] = {
    hoIpFlowStatusType(),     hoIp6FlowStatusType(),      hoFlowStatusType(),
    hosStateCounterKeyType(), hosStateCounterEntryType(), hosStateCounterType(),
    hoIpFlowCounterType(),    hoIp6FlowCounterType(),     hoFlowCounterType(),
};
static_assert(std::size(hoFlowStatusTypes) == HoFlowStatusIndex::count);

}  // namespace

extern "C" {
Zeb::Module _HoFlowConfig_d7c62409_zebModule("_HoFlowConfig_d7c62409_zebModule", hoFlowConfigTypes,
                                             hoFlowConfigImports);
Zeb::Module _HoFlowStatus_b4e443f4_zebModule("_HoFlowStatus_b4e443f4_zebModule", hoFlowStatusTypes,
                                             hoFlowStatusImports);
}

// --- load-time initialisers
// -----------------------------------------------------
//
// One per source group, in the order HoFlow, HoFlowConfig, HoFlowStatus,
// Ho6Flow. Each makes sure the standard streams exist (the types print on
// them), keeps its file-level name prefix until exit, and registers its
// module. Nothing else runs at load: no table, no file, no thread.

namespace {

struct ModuleInit {
  explicit ModuleInit(Zeb::Module* module) : prefix("ns-") { Zeb::zebModuleIs(module); }
  std::ios_base::Init streams;
  Zeb::String prefix;
};

ModuleInit const hoFlowInit(&_HoFlow_adf6f25f_zebModule);
ModuleInit const hoFlowConfigInit(&_HoFlowConfig_d7c62409_zebModule);
ModuleInit const hoFlowStatusInit(&_HoFlowStatus_b4e443f4_zebModule);
ModuleInit const ho6FlowInit(&_Ho6Flow_e944d5d2_zebModule);

}  // namespace
