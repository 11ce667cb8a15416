// The reader of each of the seven flow tables. MirakReader is header code;
// TableReaders.cpp compiles it once per table and every other file sees it
// `extern`.
#pragma once

#include "FlowTracking/Tables.h"
#include "Mirak/MirakReader.h"

namespace FlowTracking {

using HoIpFlowConfigReader = Mirak::MirakReader<HoIpFlowConfigOps>;
using HoIp6FlowConfigReader = Mirak::MirakReader<HoIp6FlowConfigOps>;
using HoIpFlowStatusReader = Mirak::MirakReader<HoIpFlowStatusOps>;
using HoIp6FlowStatusReader = Mirak::MirakReader<HoIp6FlowStatusOps>;
using HoIpFlowCounterReader = Mirak::MirakReader<HoIpFlowCounterOps>;
using HoIp6FlowCounterReader = Mirak::MirakReader<HoIp6FlowCounterOps>;
using HosStateCounterReader = Mirak::MirakReader<HosStateCounterOps>;

}  // namespace FlowTracking

#define FLOWTRACKING_READER_TEMPLATES(Prefix)                                  \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIpFlowConfigOps>;   \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIp6FlowConfigOps>;  \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIpFlowStatusOps>;   \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIp6FlowStatusOps>;  \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIpFlowCounterOps>;  \
  Prefix template class Mirak::MirakReader<FlowTracking::HoIp6FlowCounterOps>; \
  Prefix template class Mirak::MirakReader<FlowTracking::HosStateCounterOps>

FLOWTRACKING_READER_TEMPLATES(extern);
