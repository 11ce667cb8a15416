// Mirak::Tmp<Ops>: the private table of a collection that is not mounted.
//
// A complete MirakWriter in this process's private memory (local mode: no
// files, no writer lock, no wake-up socket, no sentry) that reports mount
// status 0. A collection answers every operation on it from its creation on;
// what it holds is seen by nobody else and is lost when the collection gets a
// new private table (its entity got a parent) or is mounted.
//
// Built by MirakMap::createDefaultLocalWriter with MapDescriptor(kCapacity)
// and `local` set.
#pragma once

#include <cstdint>

#include "Lomi/Trace.h"
#include "Mirak/MirakWriter.h"

namespace Mirak {

template <TablePolicy OpsT>
class Tmp : public MirakWriter<OpsT> {
 public:
  using MirakWriter<OpsT>::MirakWriter;

  // Entries of the private table: a fixed maximum, as a private table only
  // bridges the time until the collection is mounted.
  static constexpr uint32_t kCapacity = 100;

  ~Tmp() override { FMTRACE(this->handler_, 5, "Tmp", "{}", this->rootPath()); }

  // Not mounted, though it answers all reads and writes.
  Mem::MountStatus mountStatus() const override { return Mem::mountStatusNotMounted; }
};

}  // namespace Mirak
