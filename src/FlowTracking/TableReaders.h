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

#define FLOWTRACKING_READER_TEMPLATES(Prefix) FLOWTRACKING_EACH_TABLE(Prefix, Mirak::MirakReader)

FLOWTRACKING_READER_TEMPLATES(extern);
