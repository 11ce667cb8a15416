// The writer of each of the seven flow tables. MirakWriter is header code;
// TableWriters.cpp compiles it once per table and every other file sees it
// `extern`.
#pragma once

#include "FlowTracking/Tables.h"
#include "Mirak/MirakWriter.h"

namespace FlowTracking {

using HoIpFlowConfigWriter = Mirak::MirakWriter<HoIpFlowConfigOps>;
using HoIp6FlowConfigWriter = Mirak::MirakWriter<HoIp6FlowConfigOps>;
using HoIpFlowStatusWriter = Mirak::MirakWriter<HoIpFlowStatusOps>;
using HoIp6FlowStatusWriter = Mirak::MirakWriter<HoIp6FlowStatusOps>;
using HoIpFlowCounterWriter = Mirak::MirakWriter<HoIpFlowCounterOps>;
using HoIp6FlowCounterWriter = Mirak::MirakWriter<HoIp6FlowCounterOps>;
using HosStateCounterWriter = Mirak::MirakWriter<HosStateCounterOps>;

}  // namespace FlowTracking

#define FLOWTRACKING_WRITER_TEMPLATES(Prefix) FLOWTRACKING_EACH_TABLE(Prefix, Mirak::MirakWriter)

FLOWTRACKING_WRITER_TEMPLATES(extern);
