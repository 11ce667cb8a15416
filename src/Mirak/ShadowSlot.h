// Mirak::ValueShadowSlot<Ops> and Mirak::KeyShadowSlot<Ops>: the local slots
// of a shadow's private copy.
//
// Local slot n mirrors table slot n, so a change of slot n lands without a
// search. A slot is its own node in the copy's hash chains (ShadowHashMap):
//
//   next   the next slot of the chain, null at its end;
//   prev   the location that points to this slot: the bucket entry for the
//          first slot of a chain, else the previous slot's `next`, which is
//          that slot's address, since `next` is the first field;
//   hash   the key's hash under the table's seed, bits reversed.
//
// A slot is dead (in no chain) when next and prev are both null; nothing else
// of a dead slot is read, so zero-filled memory is an array of dead slots
// (makeDead also resets the rest, to the default value or key). A value slot
// keeps the whole row; a key slot keeps the key only and reads the value from
// the table when asked.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Mirak/Operations.h"

namespace Mirak {

template <TablePolicy OpsT>
struct ValueShadowSlot {
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  static constexpr bool keepsValue = true;

  ValueShadowSlot* next;
  ValueShadowSlot** prev;
  uint32_t hash;
  Value value;

  decltype(auto) key() const { return Ops::key(value); }
  bool dead() const { return next == nullptr && prev == nullptr; }
  void makeDead() {
    next = nullptr;
    prev = nullptr;
    hash = 0;
    value = Ops::defaultValue();
  }
};

template <TablePolicy OpsT>
struct KeyShadowSlot {
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  static constexpr bool keepsValue = false;

  KeyShadowSlot* next;
  KeyShadowSlot** prev;
  uint32_t hash;
  Key slotKey;

  Key const& key() const { return slotKey; }
  bool dead() const { return next == nullptr && prev == nullptr; }
  void makeDead() {
    next = nullptr;
    prev = nullptr;
    hash = 0;
    slotKey = defaultKey();
  }
  static Key const& defaultKey() {
    static Key const k = Ops::key(Ops::defaultValue());
    return k;
  }
};

}  // namespace Mirak
