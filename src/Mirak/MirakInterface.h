// Mirak::MirakInterface<Ops>: the one interface of every back end of a
// collection (writer, private table, reader, shadow, placeholders), and its
// non-generic base Mirak::MirakInterfaceBase.
//
// The front object owns exactly one back end at a time and calls it only
// through this interface, so no caller needs to know which kind stands behind
// it or whether a table exists at all.
//
// The virtual operations, in their slot order (1 is the destructor):
//
//   #  operation                       if a back end does not override it
//   2  initialize(event)               pure
//   3  detach(force)                   pure
//   4  validate()                      true: nothing here can be damaged
//   5  validateFiles()                 true
//   6  cleanup()                       nothing
//   7  members()                       pure: live entries
//   8  buckets()                       pure
//   9  minSize()                       pure
//  10  maxSize()                       pure
//  11  capacity()                      pure
//  12  type()                          pure
//  13  quiesced()                      false
//  14  connected()                     false
//  15  writerCounters()                zero record
//  16  readerCounters()                zero record
//  17  notifyingIs(bool)               nothing
//  18  yieldTimeIs(seconds)            nothing
//  19  sequence()                      0
//  20  clientQuiesced(name)            false
//  21  rootPath()                      pure
//  22  mirakName()                     pure
//  23  mountStatus()                   pure
//  24  kestorId()                      0
//  25  validateVersionAnchor()         pure
//  26  validateVersionAnchorHookIs(h)  keeps the hook (validateVersionAnchorHook())
//  27  getCacheVersionAnchor()         the never-set anchor
//  28  criticalTaskCheckIs(bool)       nothing
//  29  criticalTaskCheck()             false
//  30  scratchpadIs(u64)               nothing
//  31  scratchpad()                    0
//  32  write(value, overwrite)         throws NoPermissionException
//                                      "write to read-only Mirak table"
//  33  remove(key, removed)            throws NoPermissionException
//                                      "remove to read-only Mirak table"
//  34  lookup(key, found, buffer)      pure
//  35  first(value, hint)              pure
//  36  next(key, value, hint)          pure
//  37  directWrite(value)              throws "write to read-only Mirak table"
//  38  directUpdate(key)               throws "write to read-only Mirak table"
//  39  directCommit()                  throws "write to read-only Mirak table"
//  40  directLookup(key, found, buf)   calls lookup through the table
//  41  startOutcome()                  kind none: no writer started here
//
// Slots 2 to 31 do not depend on the table's types and are declared by
// MirakInterfaceBase; 32 to 41 by MirakInterface<Ops>. Since a derived class
// appends its virtuals after its base's, the table of a MirakInterface<Ops>
// is exactly the order above.
//
// Contract of the data operations (what every back end keeps):
//   - lookup(key, found, buffer) sets `found` and returns the address of the
//     value: in the table, or in `buffer` or a buffer of the back end when the
//     back end copies values out, or, when not found, the address of
//     Ops::defaultValue(). A back end that finds nothing copies the default
//     into `buffer` only where its own contract says so; the placeholders
//     leave `buffer` alone.
//   - first(value, hint) and next(key, value, hint) return whether an entry
//     was found; `hint` belongs to the caller between steps.
//   - write returns the address of the stored value; remove returns whether
//     the key was there and gives its value in `removed`.
//   - Back ends are used on their owner's thread only; nothing here locks.
#pragma once

#include <cstdint>
#include <string>

#include "Lomi/Exception.h"
#include "Mem/CollectionDescriptor.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/Operations.h"
#include "Mirak/StartOutcome.h"
#include "Parcel/KestorId.h"
#include "Tessel/Sequence.h"

namespace Mirak {

using Sequence = Tessel::Sequence;

using VersionAnchorHook = void (*)(Mem::VersionAnchor const&);

class MirakInterfaceBase {
 public:
  virtual ~MirakInterfaceBase();

  // 2, 3
  virtual bool initialize(std::string const& event) = 0;
  virtual void detach(bool force) = 0;
  // 4 - 6
  virtual bool validate();
  virtual bool validateFiles();
  virtual void cleanup();
  // 7 - 12
  virtual uint32_t members() const = 0;
  virtual uint32_t buckets() const = 0;
  virtual uint32_t minSize() const = 0;
  virtual uint32_t maxSize() const = 0;
  virtual uint32_t capacity() const = 0;
  virtual MirakType type() const = 0;
  // 13 - 20
  virtual bool quiesced() const;
  virtual bool connected() const;
  virtual Writer::Counters writerCounters() const;
  virtual Reader::Counters readerCounters() const;
  virtual void notifyingIs(bool notifying);
  virtual void yieldTimeIs(double const& seconds);
  virtual Sequence sequence() const;
  virtual bool clientQuiesced(std::string const& clientName) const;
  // 21 - 24
  virtual Mem::NaoRootPath rootPath() const = 0;
  virtual std::string mirakName() const = 0;
  virtual Mem::MountStatus mountStatus() const = 0;
  virtual Parcel::KestorId kestorId() const;
  // 25 - 27. validateVersionAnchor returns true when the value last read is
  // still current; a back end throws Mem::VersionMismatchException when it
  // is not, and asserts when nothing was read.
  virtual bool validateVersionAnchor() const = 0;
  virtual void validateVersionAnchorHookIs(VersionAnchorHook hook);
  virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const;
  // 28 - 31
  virtual void criticalTaskCheckIs(bool check);
  virtual bool criticalTaskCheck() const;
  virtual void scratchpadIs(uint64_t value);
  virtual uint64_t scratchpad() const;

  // Whether the back end is attached and serving (set by the back end, and
  // by the front object for a private table it attached itself).
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // The hook kept by the default validateVersionAnchorHookIs; null if none.
  VersionAnchorHook validateVersionAnchorHook() const { return versionAnchorHook_; }

 protected:
  MirakInterfaceBase() = default;
  MirakInterfaceBase(MirakInterfaceBase const&) = delete;
  MirakInterfaceBase& operator=(MirakInterfaceBase const&) = delete;

  // The refusals of slots 32, 33 and 37 to 39, shared by every instance.
  [[noreturn]] static void throwWriteRefused();
  [[noreturn]] static void throwRemoveRefused();

 private:
  bool initialized_ = false;
  VersionAnchorHook versionAnchorHook_ = nullptr;
};

template <TablePolicy OpsT>
class MirakInterface : public MirakInterfaceBase {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using TesselWriter = typename Ops::TesselWriter;

  ~MirakInterface() override = default;

  // 32, 33
  virtual Value const* write(Value const& value, bool overwrite);
  virtual bool remove(Key const& key, Value& removed);
  // 34 - 36
  virtual Value const* lookup(Key const& key, bool& found, void* buffer) const = 0;
  virtual bool first(Value& value, IterHint& hint) const = 0;
  virtual bool next(Key const& key, Value& value, IterHint& hint) const = 0;
  // 37 - 40
  virtual Value* directWrite(Value const& value);
  virtual Value* directUpdate(Key const& key);
  virtual void directCommit();
  virtual Value const* directLookup(Key const& key, bool& found, void* buffer) const;
  // 41: what the last start of a writer did with the files it found.
  virtual StartOutcome startOutcome() const { return StartOutcome(); }
};

template <TablePolicy OpsT>
auto MirakInterface<OpsT>::write(Value const&, bool) -> Value const* {
  throwWriteRefused();
}

template <TablePolicy OpsT>
bool MirakInterface<OpsT>::remove(Key const&, Value&) {
  throwRemoveRefused();
}

template <TablePolicy OpsT>
auto MirakInterface<OpsT>::directWrite(Value const&) -> Value* {
  throwWriteRefused();
}

template <TablePolicy OpsT>
auto MirakInterface<OpsT>::directUpdate(Key const&) -> Value* {
  throwWriteRefused();
}

template <TablePolicy OpsT>
void MirakInterface<OpsT>::directCommit() {
  throwWriteRefused();
}

template <TablePolicy OpsT>
auto MirakInterface<OpsT>::directLookup(Key const& key, bool& found, void* buffer) const
    -> Value const* {
  return lookup(key, found, buffer);
}

}  // namespace Mirak
