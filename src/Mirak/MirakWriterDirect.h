// Mirak::MirakWriter, its direct mode: the client builds a value in place
// (directWrite or directUpdate hand out the address) and directCommit
// publishes it. Part of MirakWriter.h (included at its end).
//
// The value is built where no reader takes it as the slot's: in the
// lookaside slot for a slot that is OCCUPIED (readers copy the slot itself
// until the commit's rewrite), in the slot itself for a new one (no chain
// reaches it until the commit publishes it).
//
// DIRECT WRITE:
//   1. direct mode must not be open already.
//   2. the critical section opens; it stays open until the commit.
//   3. a key that is not there gets a slot (insert steps 1-3).
//   4. the value is copied to its building place (directDestination).
//   5. the mode opens: slot, and whether the entry is new.
// DIRECT UPDATE:
//   1. direct mode must not be open already.
//   2. the critical section opens for the walk.
//   3. a key that is not there: the section closes, nullptr.
//   4. the mode opens on the key's slot; the building place is handed out.
//   5. the section closes: the mode stays open without the marker while the
//      client fills the value.
// COMMIT:
//   1. direct mode must be open (asserted); the critical section is open
//      again (the reason is at the site).
//   2. a new entry points into the chain (insert step 4).
//   3. an OCCUPIED slot gets the lookaside's rhash and is rewritten from the
//      lookaside (overwrite step 2); a new one, whose value is in place, is
//      marked OCCUPIED with its word moved by 4 (SlotStore::occupy).
//   4. a new entry is published (insert step 7).
//   5. the buckets grow.
//   6. the queue hears of it.
//   7. the critical section closes.
#pragma once

#include "Mirak/MirakWriter.h"

namespace Mirak {

template <TablePolicy OpsT>
void MirakWriter<OpsT>::assertUnbalanced(char const* what, Value const& value) {
  SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
  slots_.versionAnchor().set(s.versionFlags, &s.versionFlags, slots_.base());
  Lomi::fmassert(handler_, "MirakWriter", what,
                 "unbalanced directSlot:{} containing value:{} when {} value:{} - Make sure the "
                 "DirectIs/Commit are properly paired!",
                 directSlot_, Ops::valueText(s.value), what, Ops::valueText(value));
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::assertUnbalancedKey(Key const& key) {
  SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
  Lomi::fmassert(handler_, "MirakWriter", "remove",
                 "unbalanced directSlot:{} containing value:{} when removing key:{} - Make sure "
                 "the DirectIs/Commit are properly paired!",
                 directSlot_, Ops::valueText(s.value), Ops::keyText(key));
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::directWrite(Value const& value) -> Value* {
  Key const key = Ops::key(value);
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  // Direct write step 1.
  if (inDirectMode()) assertUnbalanced("writing", value);
  // Direct write step 2.
  slots_.enterCriticalSection();
  Link* curr;
  bool const existing = map_.find(key, bucket, &directPrevLink_, &curr, hash);
  uint32_t index;
  if (existing) {
    index = directPrevLink_->next;
  } else {
    // Direct write step 3.
    index = allocSlot(hash, directPrevLink_, curr);
  }
  counters_.directWrites++;
  // Direct write step 4.
  SlotT& s = slots_.slots()[index];
  Value* const destination = directDestination(s);
  std::memcpy(static_cast<void*>(destination), &value, sizeof(Value));
  FMTRACE(handler_, 9, "MirakWriter", "{}{} bucket:{} slot:{} next:{}",
          existing ? " existing " : " new ", Ops::keyText(key), bucket, index, s.link.next);
  // Direct write step 5.
  directSlot_ = index;
  directNew_ = !existing;
  return destination;
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::directUpdate(Key const& key) -> Value* {
  // Direct update step 1.
  if (inDirectMode()) {
    SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
    Lomi::fmassert(handler_, "MirakWriter", "directUpdate",
                   "unbalanced directSlot:{} containing value:{} when modifying key:{} - Make "
                   "sure the DirectIs/Commit are properly paired!",
                   directSlot_, Ops::valueText(s.value), Ops::keyText(key));
  }
  // Direct update step 2.
  slots_.enterCriticalSection();
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  Link* curr;
  bool found;
  try {
    found = map_.find(key, bucket, &directPrevLink_, &curr, hash);
  } catch (...) {
    throw;  // the critical bit stays up: the chain is damaged
  }
  // Direct update step 3.
  if (!found) {
    slots_.leaveCriticalSection();
    return nullptr;
  }
  // Direct update step 4.
  counters_.directUpdates++;
  uint32_t const index = directPrevLink_->next;
  directSlot_ = index;
  directNew_ = false;
  Value* const destination = directDestination(slots_.slots()[index]);
  // Direct update step 5.
  slots_.leaveCriticalSection();
  return destination;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::directCommit() {
  // Commit step 1.
  FMTRACE(handler_, 9, "MirakWriter", "slot: {}", directSlot_);
  FMASSERT(directSlot_ != kNoSlot, handler_, "MirakWriter",
           "not in direct mode! Make sure the DirectIs/Commit are properly paired!");
  uint32_t const index = directSlot_;
  SlotT& s = slots_.slots()[index];
  // directUpdate left the critical section while the client filled the
  // lookaside slot. The stores below change a visible slot and the notify
  // comes after them: a death between the two would leave a change that no
  // reader of the queue hears of. The marker covers them, so that a restart
  // refuses the table like any death inside a write.
  if (!slots_.inCriticalSection()) slots_.enterCriticalSection();
  // Commit step 2.
  if (directNew_) SlotStore::relink(s.link, directPrevLink_->next);
  counters_.directCommits++;
  // Commit step 3.
  if (s.versionFlags & SlotTable::OCCUPIED) {
    SlotTable::Header* const h = slots_.header();
    SlotStore::lookasideRhashIs(h, s.rhash);
    SlotStore::rewrite(s.versionFlags, &s.value, h->lookasideValue(), sizeof(Value));
  } else {
    SlotStore::occupy(s.versionFlags);
  }
  directSlot_ = kNoSlot;
  // Commit step 4.
  if (directNew_) {
    SlotStore::relink(*directPrevLink_, index);
    directNew_ = false;
  }
  // Commit step 5.
  if (members() > map_.growThreshold()) map_.growBuckets();
  // Commit step 6.
  announce(index);
  // Commit step 7.
  slots_.leaveCriticalSection();
}

}  // namespace Mirak
