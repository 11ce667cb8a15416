// The seven tables of flow tracking as instances of the generic table family.
//
// Each (key, record) pair is one policy, FlowTracking::<Table>Ops, and with it
// one instance of every class of the family. Those classes are header code;
// they are compiled once, in Tables.cpp, and declared `extern template` here,
// so that a file that uses a table does not compile it again.
//
//   policy               key                 record (valueType)     change queue
//   HoIpFlowConfigOps    HoIpFlowKey         HoIpFlowConfig          yes
//   HoIp6FlowConfigOps   HoIp6FlowKey        HoIp6FlowConfig         yes
//   HoIpFlowStatusOps    HoIpFlowKey         HoIpFlowStatus          yes
//   HoIp6FlowStatusOps   HoIp6FlowKey        HoIp6FlowStatus         yes
//   HoIpFlowCounterOps   IpFlowKey           HoIpFlowCounter         no
//   HoIp6FlowCounterOps  Ip6FlowKey          HoIp6FlowCounter        no
//   HosStateCounterOps   HosStateCounterKey  HosStateCounterEntry    no
//
// Tables with a change queue can be shadowed; the others (counters, hos
// state) are read only, and their writer feeds no queue and wakes no reader.
#pragma once

#include <string_view>

#include "FlowTracking/FlowKey.h"
#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowKey.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounter.h"
#include "Mirak/MirakDummy.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Operations.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/DummyTesselWriter.h"
#include "Tessel/TesselPos.h"
#include "Tessel/TesselWriter.h"
#include "ZebMirak/ValueWrapper.h"

namespace FlowTracking {

// The two kinds of change queue writer.
using ChangeQueueWriter = Tessel::TesselWriter;
using NoChangeQueueWriter = Tessel::DummyTesselWriter;

// A record as the value of its table.
template <typename Record>
using TableValue =
    ZebMirak::ZebMirakMapValueWrapper<Record, typename Record::Key, &Record::key, false>;

template <typename Record, typename QueueWriter>
using TableOps = Mirak::Ops<
    typename Record::Key, TableValue<Record>,
    Mirak::KeyOps<
        typename Record::Key, TableValue<Record>,
        Mirak::KeyRetrieval<typename Record::Key, TableValue<Record>, &TableValue<Record>::fwkKey>,
        Mirak::Hash<typename Record::Key, false>>,
    Mirak::ValueOps<typename Record::Key, TableValue<Record>, Mirak::Marshall<TableValue<Record>>,
                    Mirak::Allocator<TableValue<Record>>>,
    Mirak::SlotAllocator<typename Record::Key, TableValue<Record>>, QueueWriter,
    Mirak::NullPrevValueAnchor>;

using HoIpFlowConfigOps = TableOps<HoIpFlowConfig, ChangeQueueWriter>;
using HoIp6FlowConfigOps = TableOps<HoIp6FlowConfig, ChangeQueueWriter>;
using HoIpFlowStatusOps = TableOps<HoIpFlowStatus, ChangeQueueWriter>;
using HoIp6FlowStatusOps = TableOps<HoIp6FlowStatus, ChangeQueueWriter>;
using HoIpFlowCounterOps = TableOps<HoIpFlowCounter, NoChangeQueueWriter>;
using HoIp6FlowCounterOps = TableOps<HoIp6FlowCounter, NoChangeQueueWriter>;
using HosStateCounterOps = TableOps<HosStateCounterEntry, NoChangeQueueWriter>;

// The value sizes are the table format: a record that changes size changes
// every file of its table.
static_assert(HoIpFlowConfigOps::valueSize == 84);
static_assert(HoIp6FlowConfigOps::valueSize == 108);
static_assert(HoIpFlowStatusOps::valueSize == 56);
static_assert(HoIp6FlowStatusOps::valueSize == 80);
static_assert(HoIpFlowCounterOps::valueSize == 72);
static_assert(HoIp6FlowCounterOps::valueSize == 96);
static_assert(HosStateCounterOps::valueSize == 8);

}  // namespace FlowTracking

// The type names stored in the tables' headers: the records', not the wrappers'.
#define FLOWTRACKING_VALUE_TYPE_NAME(Record)                            \
  template <>                                                           \
  struct Mirak::ValueTypeName<FlowTracking::Record> {                   \
    static constexpr std::string_view value = "FlowTracking::" #Record; \
  }

FLOWTRACKING_VALUE_TYPE_NAME(HoIpFlowConfig);
FLOWTRACKING_VALUE_TYPE_NAME(HoIp6FlowConfig);
FLOWTRACKING_VALUE_TYPE_NAME(HoIpFlowStatus);
FLOWTRACKING_VALUE_TYPE_NAME(HoIp6FlowStatus);
FLOWTRACKING_VALUE_TYPE_NAME(HoIpFlowCounter);
FLOWTRACKING_VALUE_TYPE_NAME(HoIp6FlowCounter);
FLOWTRACKING_VALUE_TYPE_NAME(HosStateCounterEntry);

#undef FLOWTRACKING_VALUE_TYPE_NAME

// `Prefix template class Template<Ops>` for the policy of each of the seven
// tables: the explicit instantiations (Prefix empty) and their `extern`
// declarations, here and in TableReaders.h and TableWriters.h.
#define FLOWTRACKING_EACH_TABLE(Prefix, Template)                    \
  Prefix template class Template<FlowTracking::HoIpFlowConfigOps>;   \
  Prefix template class Template<FlowTracking::HoIp6FlowConfigOps>;  \
  Prefix template class Template<FlowTracking::HoIpFlowStatusOps>;   \
  Prefix template class Template<FlowTracking::HoIp6FlowStatusOps>;  \
  Prefix template class Template<FlowTracking::HoIpFlowCounterOps>;  \
  Prefix template class Template<FlowTracking::HoIp6FlowCounterOps>; \
  Prefix template class Template<FlowTracking::HosStateCounterOps>

// The class templates of the family; Tables.cpp has the explicit
// instantiations.
#define FLOWTRACKING_ALL_TABLE_TEMPLATES(Prefix)          \
  FLOWTRACKING_EACH_TABLE(Prefix, Mirak::MirakInterface); \
  FLOWTRACKING_EACH_TABLE(Prefix, Mirak::MirakDummy);     \
  FLOWTRACKING_EACH_TABLE(Prefix, Mirak::MirakStrictDummy)

FLOWTRACKING_ALL_TABLE_TEMPLATES(extern);
