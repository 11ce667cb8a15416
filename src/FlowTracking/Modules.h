// The four modules of flow tracking in the generic interface (Zeb/Module.h).
//
//   module                              types, by index
//   _HoFlow_adf6f25f_zebModule          0 HoIpFlowKey
//   _Ho6Flow_e944d5d2_zebModule         0 HoIp6FlowKey
//   _HoFlowConfig_d7c62409_zebModule    0 HoIpFlowConfig, 1 HoIp6FlowConfig, 2 HoFlowConfig
//   _HoFlowStatus_b4e443f4_zebModule    0 HoIpFlowStatus, 1 HoIp6FlowStatus, 2 HoFlowStatus,
//                                       3 HosStateCounterKey, 4 HosStateCounterEntry,
//                                       5 HosStateCounter, 6 HoIpFlowCounter,
//                                       7 HoIp6FlowCounter, 8 HoFlowCounter
//
// They are registered at load, in the order HoFlow, HoFlowConfig,
// HoFlowStatus, Ho6Flow, and nothing else happens at load. A program needs
// none of the flow headers to use them: it finds a type by its full name with
// Zeb::typeByName and works through the type's implementation table.
//
// Attribute ids: values 2 and up in field order, `mirakString` last; entities
// 258 IPv4 collection, 259 its control, 260 IPv6 collection, 261 its control,
// 262 `mountPath`. The operations on them, with the argument each takes:
//
//   value field        opGet: field bytes to `result` (a VlanTag: 6 bytes);
//                      opSet (fields with a writer only): `argument` points at
//                      the new field value (a VlanTag: 5 bytes are taken)
//   mirakString        opCall: `result` is a constructed Zeb::String
//   value, attribute 0 opBool, opEqual (`argument`: a value of the type),
//                      opLess (keys only): one byte to `result`
//   collection         `key` points at a key, `argument` at a row, `result`
//                      at storage for a row (opGet, opDel), a u32 (opMembers,
//                      opReserved4) or a byte (opExists)
//   control            `result` / `argument`: Zeb::Ptr<ZebMirak::CollectionControl>
//   mountPath          opCall; `argument` is an array of Zeb::String const*,
//                      one per parameter; `result` a constructed Zeb::String
//
// constructFromCtorArgs: keys (flow key, intfId); records (key); the counter
// key (HoFlowState); entities (Zeb::String name) into a Zeb::Ptr<Zeb::Entity>
// constructed at `memory`.
#pragma once

#include "Zeb/Module.h"

extern "C" {
extern Zeb::Module _HoFlow_adf6f25f_zebModule;
extern Zeb::Module _Ho6Flow_e944d5d2_zebModule;
extern Zeb::Module _HoFlowConfig_d7c62409_zebModule;
extern Zeb::Module _HoFlowStatus_b4e443f4_zebModule;
}
