// Mirak::MirakWriter, its life and its files: construction, attach and
// adoption, detach, cleanup, the audit and the statistics. Part of
// MirakWriter.h (included at its end); the steps below run on the writer's
// thread, never concurrently with a data operation.
//
// THE START (attach()): the directory is held from step 1 to the end.
//   1. the owner file's lock.
//   2. a local table takes a kestor of its own, and there is nothing more to
//      claim.
//   3. a shared table takes the directory's writer rights (a second live
//      writer fails here), learns its wake-up socket, and reads the kestor of
//      the last writer (a new one if there is none).
//   4. an owner file that does not validate: every file is formatted anew.
//   5. the owner file names the table's value type and kind.
//   6. adopt, or re-format (attachAndValidate); an adoption that fails falls
//      back to a re-format, which must succeed.
//   7. a "corruption-detected" marker left by a reader goes.
//   8. the wake-up socket listens.
//   9. the kestor file is written: the last step of the file work.
//  10. the start's trace.
//
// ADOPTION (attachAndValidate, reformat false):
//   1. attach the files under the stored kestor; all of them new or all kept,
//      or the adoption fails.
//   2. the full audit (Validator). A failure on a physical switch under
//      strict validation keeps the evidence (the table goes into a core file,
//      the kestor file goes) and throws; otherwise the adoption fails and the
//      start re-formats.
// SALVAGE (an adoption refused while the slot file was kept, salvage on):
//   1. before anything is formatted, every slot of the old mapping is read,
//      bounded by the mapped size (no count of the header is trusted), and
//      each complete record is written straight into the side file's mapped
//      temporary (private memory if none can be made):
//        - OCCUPIED clear: a free slot, or an insert in flight (LOOKASIDE up):
//          not taken;
//        - OCCUPIED and LOOKASIDE: an overwrite in flight whose whole new
//          value was staged in the lookaside before LOOKASIDE rose; taken from
//          there if the lookaside names the same key and hash, else dropped
//          (no whole value of the slot is known);
//        - the stored rhash must be the reversed hash of the record's key
//          under the old seed.
//      Readers are not disturbed: nothing is stored into the files.
//   2. the temporary is sealed and renamed to the side file "salvage"
//      (SalvageFile.h gives the store order that makes a salvage crash-safe,
//      and what a start that finds the file does with it: a killed salvage is
//      taken up from it); the build reads the records from its mapping.
//   3. the re-format below, unchanged: new kestor, new seed, files formatted
//      in place with the kestor and size version published first, so readers
//      of the old generation answer as detached, re-attach and resweep.
//   4. the records are built into the new generation in bulk (carrySalvage:
//      sized once, slots in walk order, chains linked in one pass, the bucket
//      heads of a large table on a second thread meanwhile), without
//      queue notifications: readers and shadows re-read the new generation
//      whole. A second copy of a key (a slot move stopped between its copy
//      and its retire) is dropped, so the copy in the lower slot, the move's
//      target, is kept.
//   5. after the kestor file names the new generation, the side file goes.
//   The one write in flight is thus kept whole or lost, never half kept. A
//   slot file that the attach did not keep (its header failed, another
//   kestor) has nothing to read: the start ends in an empty re-format.
// RE-FORMAT (reformat true):
//   1-3. a new generation (kestor high half + 1) and the files attached under
//      it: each finds the stored kestor differs and formats itself.
//   4. the audit must pass, or the start throws.
//   5. a salvage carries its records in.
// Both finish by recording this writer in the owner file. The outcome (new,
// adopted, salvaged, re-formatted, with the reason) is traced at level 1 and
// left in the side file of StartOutcome.h before the kestor file is written.
//
// CLEANUP (cleanup()):
//   1. the owner file's lock and, by force, the directory's writer rights.
//   2. the owner file is checked; a damaged one does not stop the cleaning.
//   3. the corruption marker, queue, buckets, slots, kestor file, clone
//      control and lifetime files go.
//   4. the owner file goes last.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "Mem/CloneControl.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/SalvageFile.h"
#include "Mirak/Util.h"
#include "Mirak/Validator.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "MirakCore/BitReverse.h"

namespace Mirak {

namespace Impl {
// Below this many buckets the heads are linked without a second thread: the
// thread would cost more than it saves.
inline constexpr uint32_t kThreadedHeads = 1u << 16;
// The high half of the kestor ids a process makes: two tables of one process
// get different ids.
inline std::atomic<uint16_t> kestorCounter{0};
}  // namespace Impl

template <TablePolicy OpsT>
MirakWriter<OpsT>::MirakWriter(Lomi::Platform::DebugHandler& handler, char const* name,
                               MapDescriptor const& desc, Ops const& ops,
                               QuiesceHandler quiesceHandler)
    : handler_(handler),
      ops_(ops),
      localMem_(desc.local),
      rootPath_(handler, name, desc.local),
      salvage_(desc.salvage),
      quiesceHandler_(std::move(quiesceHandler)),
      criticalTaskCheck_(desc.criticalTaskCheck),
      shrinkBuckets_(desc.shrinkBuckets_),
      slots_(handler, rootPath_.str(), slotFilePath(rootPath_), slotConfig(desc),
             ops_.keyOps.hashSeed, counters_),
      map_(handler, rootPath_.isLocal() ? std::string() : rootPath_.path(), ops_, slots_, counters_,
           criticalTaskCheck_),
      tessel_(rootPath_.isLocal() ? std::string() : rootPath_.path(), handler),
      typeName_(Ops::ValueOps::typeName()) {
  if (TesselWriter::hasQueue && !localMem_) rusk_ = std::make_unique<Rusk::WriterRuskSm>(handler);
  // Given, negated: pruneQueue asks for PruneMode::prune (0).
  tessel_.pruneModeIs(static_cast<Tessel::PruneMode>(!desc.pruneQueue));
  // What a pruning queue may drop: what every reader that keeps up has read.
  if constexpr (requires(TesselWriter & t) { t.pruneFloorIs([] { return Tessel::Sequence(); }); }) {
    if (rusk_) tessel_.pruneFloorIs([r = rusk_.get()] { return r->pruneFloor(); });
  }
}

template <TablePolicy OpsT>
MirakWriter<OpsT>::~MirakWriter() {
  detach(false);
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::initialize(std::string const& event) {
  FMTRACE(handler_, 5, "MirakWriter", "{} event:{}", rootPath_, event);
  if (!localMem_) {
    std::string why;
    FMASSERT(Mem::Atomics::checkCpuSupport(why), handler_, "MirakWriter",
             "Hardware does not support Atomics");
  }
  if (this->initialized()) return true;
  attach();
  this->initializedIs(true);
  return true;
}

template <TablePolicy OpsT>
Mem::MountStatus MirakWriter<OpsT>::mountStatus() const {
  Mem::MountStatus status = this->initialized() ? Mem::MountStatus(1) : Mem::MountStatus(0);
  FMTRACE(handler_, 5, "MirakWriter", "{} mountStatus:{}", rootPath_, int(status));
  return status;
}

template <TablePolicy OpsT>
Writer::Counters MirakWriter<OpsT>::writerCounters() const {
  Writer::Counters c = counters_;
  c.slotMappedSize = slots_.wrapper().fileSize();
  c.bucketMappedSize = map_.bucketWriter().wrapper().fileSize();
  c.sequencesProcessed = tessel_.sequence();
  if (rusk_) {
    c.ruskCount = rusk_->ruskCount();
    c.readers = rusk_->readers();
    c.sleepingReaders = rusk_->sleepingReaders();
  }
  c.tesselMappedSize =
      tessel_.headerMappedSize() + tessel_.primaryMappedSize() + tessel_.secondaryMappedSize();
  return c;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::attach() {
  // Start step 1: from here to the end the directory is held.
  FMTRACE(handler_, 5, "MirakWriter", "localMem_:{} rootPath:{}", localMem_, rootPath_);
  Parcel::KestorFile kestorFile(handler_, rootPath_, localMem_);
  Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
  ownerFile.lock();
  Parcel::TunnetInfo tunnetInfo;
  if (localMem_) {
    // Start step 2.
    kestorId_ = Parcel::KestorId(static_cast<uint16_t>(::getpid()), 0);
  } else {
    // Start step 3.
    Parcel::WriterLock::acquireWriterLock(handler_, rootPath_, ownerFile, false, socketName(),
                                       &lifetime_);
    if (rusk_) tunnetInfo = Parcel::TunnetInfo(rusk_->socketName(), rusk_->tableId());
    kestorId_ = kestorFile.read();
    if (kestorId_.isZero()) {
      kestorId_ = Parcel::KestorId(static_cast<uint16_t>(::getpid()), Impl::kestorCounter++);
    }
  }
  startOutcome_ = StartOutcome();
  // Start step 4.
  bool const reformat = !ownerFile.validate();
  if (reformat) {
    FMTRACE(handler_, 1, "MirakWriter",
            "owner file validation failed, dumping owner file string: {}",
            ownerFile.headerToString());
    startOutcome_.reason = "owner file invalid";
  }
  // Start step 5.
  ownerFile.typeNameIs(typeName_);
  ownerFile.parcelTypeIs(Parcel::ParcelType::mirak);
  // Start step 6. A salvage that a killed start left unfinished comes
  // first: its side file holds every record, the files only some.
  if (!localMem_ && resumeSalvage()) {
    attachAndValidate(true, ownerFile, tunnetInfo);
  } else if (!attachAndValidate(reformat, ownerFile, tunnetInfo)) {
    FMASSERT(!reformat, handler_, "MirakWriter", "failed to attach to and validate new files");
    attachAndValidate(true, ownerFile, tunnetInfo);
  }
  // Start step 7: a marker left by a reader is stale once the table proved
  // sound.
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  // Start step 8: readers can connect from now on.
  if (rusk_) rusk_->doEnableListen();
  // The outcome, for the agent (startOutcome()), the trace and observers in
  // other processes (the side file), before the kestor file: a start that
  // dies between the two leaves a kestor that does not match, and the next
  // start records its own.
  startOutcome_.rows = members();
  FMTRACE(handler_, 1, "MirakWriter", "start of {}: {}", rootPath_, startOutcome_.toString());
  writeStartOutcome(handler_, rootPath_, startOutcome_);
  if (salvageFile_) step(MirakCore::WriteStep::salvageCarried);
  // Start step 9, the last of the file work: a writer that dies before it
  // leaves a kestor file that doesn't match the files, or none.
  kestorFile.write(kestorId_);
  // Salvage store order step 5: the new generation is the table of record.
  if (salvageFile_) {
    step(MirakCore::WriteStep::salvageSettled);
    removeSalvageFile();
  }
  // Start step 10.
  if (!localMem_) {
    FMTRACE(handler_, 1, "MirakWriter", "success {} capacity:{} kestorId:{} mtime:{} tunnetInfo:{}",
            rootPath_, capacity(), kestorId_, kestorFile.mtime(), tunnetInfo);
  }
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::attachAndValidate(bool reformat, Parcel::OwnerFile& ownerFile,
                                          Parcel::TunnetInfo const& tunnetInfo) {
  std::string error;
  if (!reformat) {
    // Adoption step 1.
    if (!attach(kestorId_)) {
      FMTRACE(handler_, 0, "MirakWriter", "failed to attach to existing files of {}: {}", rootPath_,
              attachError_);
      FMTRACE(handler_, 0, "MirakWriter", "{}", dumpHeaders());
      FMTRACE(handler_, 0, "MirakWriter", "owner file: {}", ownerFile.headerToString());
      startOutcome_.reason = "files not adopted: " + attachError_;
      if (salvage_) collectSalvage();
      return false;
    }
    // Adoption step 2.
    if (!validate(kestorId_, error, false)) {
      if (Mirak::Util::runningOnPhysicalDut() && Mirak::Util::strictValidation()) {
        // Keep the evidence: the table goes into a core file, and the next
        // start begins afresh because the kestor file is gone.
        Parcel::KestorFile(handler_, rootPath_, localMem_).remove();
        Lomi::Util::includeShmemInCore(slots_.wrapper().base(), slots_.wrapper().fileSize(), true);
        throw Lomi::InvalidInitializeException(
            "failed initial validation of {} after re-attaching: {}", rootPath_, error);
      }
      // The reason names the check and its numbers; without it the operator
      // learns only that the table was started afresh.
      FMTRACE(handler_, 0, "MirakWriter", "failed to validate existing files of {}: {}", rootPath_,
              error);
      FMTRACE(handler_, 0, "MirakWriter", "{}", dumpHeaders());
      FMTRACE(handler_, 0, "MirakWriter", "owner file: {}", ownerFile.headerToString());
      startOutcome_.reason = error;
      if (salvage_) collectSalvage();
      return false;
    }
    startOutcome_.kind = slotsAttach_ == Mem::attachNew ? StartOutcome::Kind::created
                                                        : StartOutcome::Kind::adopted;
  } else {
    // Re-format steps 1-3: a new generation; every file formats itself since
    // the stored kestor differs.
    bool const salvaging = startOutcome_.kind == StartOutcome::Kind::salvaged;
    if (!salvaging) {
      FMTRACE(handler_, 1, "MirakWriter", "all entries from {} will be lost", rootPath_);
    }
    kestorId_ = kestorId_.reformatted();
    if (salvaging) slots_.reformatForBuild(salvageImage_.count());
    attach(kestorId_);
    // Re-format step 4.
    if (!validate(kestorId_, error, false)) {
      salvageImage_.clear();
      throw Lomi::InvalidInitializeException("failed validation of new files of {}: {}", rootPath_,
                                             error);
    }
    // Re-format step 5.
    if (salvaging) {
      carrySalvage();
    } else if (slotsAttach_ == Mem::attachNew) {
      // There was no slot file: a first start (whose owner file is missing
      // too), not a loss.
      startOutcome_.kind = StartOutcome::Kind::created;
      startOutcome_.reason.clear();
    } else {
      startOutcome_.kind = StartOutcome::Kind::reformatted;
      if (startOutcome_.reason.empty()) startOutcome_.reason = attachError_;
      if (!salvage_ && !startOutcome_.reason.empty()) startOutcome_.reason += " (salvage off)";
    }
  }
  // The finish, for both.
  if (localMem_) return true;
  ownerFile.tunnetInfoIs(tunnetInfo);
  bool const ok = ownerFile.validate(error);
  FMASSERT(ok, handler_, "MirakWriter", "wrote to owner file but validation failed: {}", error);
  owner_ = true;
  if (reformat) FMTRACE(handler_, 1, "MirakWriter", "re-formatted successfully");
  return ok;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::attach(Parcel::KestorId kestor) {
  counters_ = Writer::Counters();
  int const a = slots_.attach(kestor);
  slotsAttach_ = a;
  int const b = map_.bucketWriter().attach(kestor.value());
  map_.thresholdsIs();
  // A table without a queue has no third file: the dummy answers 0, which
  // leaves the OR of the results alone.
  int const c = tessel_.attach(kestor.value(), slots_.header()->mostSlots);
  int const all = a | b | c;
  if (all == Mem::attachNew || all == Mem::attachKept) return true;
  // Files only count together: say which were adopted, which made anew and
  // which re-formatted, so a refused adoption names its file.
  auto const what = [](int r) {
    return r == Mem::attachNew           ? "new"
           : r == Mem::attachKept        ? "adopted"
           : r == Mem::attachReformatted ? "re-formatted"
           : r == 0                            ? "none"
                                               : "mixed";
  };
  attachError_ = fmt::format("slots {}, buckets {}, queue {} (with kestor {})", what(a), what(b),
                             what(c), kestor);
  return false;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::collectSalvage() {
  salvageImage_.clear();
  SlotTable::Header const* const h = slots_.header();
  if (slotsAttach_ != Mem::attachKept || !h) {
    startOutcome_.reason += "; the slot file was not kept, nothing to salvage";
    return false;
  }
  // Salvage step 1. Bounded by what is mapped, whatever numSlots says.
  uint64_t const mapped = slots_.wrapper().fileSize();
  uint64_t const fits = mapped > Slots::Geometry::headerSize
                            ? (mapped - Slots::Geometry::headerSize) / Slots::Geometry::slotSize
                            : 0;
  uint64_t const n = std::min<uint64_t>(fits, Mem::loadAcquire(h->numSlots).value);
  auto const* const slots =
      reinterpret_cast<SlotT const*>(slots_.base() + Slots::Geometry::headerSize);
  auto const* const lookaside = reinterpret_cast<SlotT const*>(h->lookaside());
  // Salvage steps 1-2 of the store order of SalvageFile.h: the records go
  // straight into the side file's mapped temporary, sized for every slot
  // read (its room taken at once: no store can meet a full file system), so
  // they are written once. A temporary that cannot be made sends them to
  // private memory, counted first so that they take one allocation.
  std::string error;
  uint64_t room = 0;
  if (!localMem_) {
    SalvageTemp temp;
    if (temp.create(rootPath_.path(), SalvageImage<Value>::byteSize(n), error)) {
      salvageImage_.reset(std::move(temp), static_cast<uint32_t>(n), typeName_);
      room = n;
    } else {
      // The salvage goes on from private memory: a crash before its end then
      // loses the records, as it would without the salvage.
      FMTRACE(handler_, 0, "MirakWriter", "no side file for the salvage of {}: {}", rootPath_,
              error);
      startOutcome_.reason += "; no side file: " + error;
    }
  }
  if (salvageImage_.empty()) {
    for (uint64_t i = 0; i < n; i++) {
      room += (Mem::loadAcquire(slots[i].versionFlags) & SlotTable::OCCUPIED) != 0;
    }
    try {
      salvageImage_.reset(static_cast<uint32_t>(room), typeName_);
    } catch (std::bad_alloc const&) {
      startOutcome_.reason += "; no memory to salvage";
      return false;
    }
  }
  for (uint64_t i = 0; i < n; i++) {
    if constexpr (kStepHook) {
      if (i == n / 2) step(MirakCore::WriteStep::salvageCollecting);
    }
    SlotT const& s = slots[i];
    uint32_t const word = Mem::loadAcquire(s.versionFlags);
    if (!(word & SlotTable::OCCUPIED)) {
      if (word & SlotTable::LOOKASIDE) startOutcome_.unfinished++;
      continue;
    }
    Value const* v = &s.value;
    if (word & SlotTable::LOOKASIDE) {
      // An overwrite in flight: its new value was whole in the lookaside
      // before LOOKASIDE rose, and the slot's own bytes may be torn, all but
      // its key, which an overwrite rewrites with the same bytes.
      if (lookaside->rhash != s.rhash || !Ops::keyEqual(Ops::key(lookaside->value), Ops::key(s.value))) {
        startOutcome_.torn++;
        continue;
      }
      v = &lookaside->value;
    }
    // The hash under the old seed, which the attach took from the header.
    if (Lomi::Util::reverse(ops_.hash(Ops::key(*v))) != s.rhash) {
      startOutcome_.badHash++;
      continue;
    }
    if (salvageImage_.count() == room) break;  // never beyond the room made
    salvageImage_.push(static_cast<uint32_t>(i), *v);
  }
  startOutcome_.kind = StartOutcome::Kind::salvaged;
  FMTRACE(handler_, 1, "MirakWriter", "salvaging {} records of {} slots from {}",
          salvageImage_.count(), n, rootPath_);
  if (localMem_) return true;
  // Salvage step 2 (store order step 2): sealed, cut to its records and
  // renamed, the side file is in place whole before anything is formatted.
  SalvageHeader& sh = salvageImage_.header();
  sh.sourceKestor = kestorId_.value();
  sh.slotsRead = static_cast<uint32_t>(n);
  sh.unfinished = startOutcome_.unfinished;
  sh.torn = startOutcome_.torn;
  sh.badHash = startOutcome_.badHash;
  sh.targetKestor = kestorId_.reformatted().value();
  std::string_view const sealed = salvageImage_.seal();
  if (salvageImage_.mapped()) {
    salvageFile_ = salvageImage_.temp().publish(sealed.size(), error);
    if (!salvageFile_) {
      // The records stay mapped (the temporary is gone): the salvage goes
      // on without a side file, as above.
      FMTRACE(handler_, 0, "MirakWriter", "no side file for the salvage of {}: {}", rootPath_,
              error);
      startOutcome_.reason += "; no side file: " + error;
    }
  }
  step(MirakCore::WriteStep::salvageCollected);
  return true;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::resumeSalvage() {
  std::vector<uint64_t> bytes;
  uint64_t length = 0;
  std::string error;
  std::string const dir = rootPath_.path();
  SalvageFileState const state = readSalvageFile(dir, bytes, length, error);
  if (state == SalvageFileState::absent) {
    // A temporary that a start killed while writing the side file left.
    if (!removeSalvageFiles(dir, error)) {
      FMTRACE(handler_, 0, "MirakWriter", "cannot remove a salvage temporary of {}: {}", rootPath_,
              error);
    }
    return false;
  }
  SalvageImage<Value> image;
  bool usable = false;
  if (state == SalvageFileState::refused) {
    FMTRACE(handler_, 0, "MirakWriter", "ignoring the salvage side file of {}: {}", rootPath_,
            error);
    startOutcome_.sideFileRefused = error;
  } else {
    if (!image.adopt(std::move(bytes), length, typeName_, error)) {
      FMTRACE(handler_, 0, "MirakWriter", "ignoring a damaged salvage side file of {}: {}",
              rootPath_, error);
      startOutcome_.sideFileRefused = "damaged: " + error;
    } else if (Parcel::KestorId(image.header().targetKestor) == kestorId_) {
      // Its carry ended and the kestor file names the new generation: stale.
      FMTRACE(handler_, 1, "MirakWriter", "removing the stale salvage side file of {}", rootPath_);
    } else if (!salvage_) {
      FMTRACE(handler_, 1, "MirakWriter",
              "salvage is off: dropping the {} records of an unfinished salvage of {}",
              image.count(), rootPath_);
    } else {
      usable = true;
    }
  }
  if (!usable) {
    if (!removeSalvageFiles(dir, error)) {
      FMTRACE(handler_, 0, "MirakWriter", "cannot remove the salvage side file of {}: {}",
              rootPath_, error);
    }
    return false;
  }
  // The re-format goes past every generation this salvage formatted: the
  // target is raised in the file before anything is formatted under it.
  Parcel::KestorId const was(image.header().targetKestor);
  if (!salvageTargetIs(dir, was.reformatted(), error)) {
    throw Lomi::InvalidInitializeException("cannot take up the salvage of {}: {}", rootPath_,
                                           error);
  }
  kestorId_ = was;
  SalvageHeader const& h = image.header();
  startOutcome_.kind = StartOutcome::Kind::salvaged;
  startOutcome_.unfinished = h.unfinished;
  startOutcome_.torn = h.torn;
  startOutcome_.badHash = h.badHash;
  startOutcome_.reason = fmt::format(
      "a salvage of {} records (read under kestor {}) that did not finish, taken up from its side "
      "file",
      h.count, Parcel::KestorId(h.sourceKestor));
  FMTRACE(handler_, 1, "MirakWriter", "start of {}: {}", rootPath_, startOutcome_.reason);
  salvageImage_ = std::move(image);
  salvageFile_ = true;
  return true;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::removeSalvageFile() {
  std::string error;
  if (!removeSalvageFiles(rootPath_.path(), error)) {
    // The next start finds it stale (its target is the kestor file's id).
    FMTRACE(handler_, 0, "MirakWriter", "cannot remove the salvage side file of {}: {}",
            rootPath_, error);
  }
  salvageFile_ = false;
}

// The bulk build of a salvage (salvage step 3). The new generation is read by
// nobody until the kestor file names it (a reader validates both headers
// against the kestor file's id, and the old generation's readers find the
// kestor moved), so the build stores slots in order and links each chain in
// one pass, with no rewrite protocol and no queue notification: readers and
// shadows re-read the new generation whole. The critical bit is up
// throughout all the same, so a build cut short never validates.
//   1. every record's hash under the new seed; the records sorted by
//      (rhash, key), records of equal keys kept once (the lowest old slot,
//      a slot move's target);
//   2. the capacity the insert path would have grown to (a fixed-size table
//      keeps the records of the lowest old slots that fit), and the bucket
//      count it would have doubled to (one bucket per record, a power of two);
//   3. slots [0, kept) in walk order: slot j holds the j-th record, linked to
//      j + 1 within its bucket, else to the next bucket of the walk; the rest
//      threaded on the free list (SlotWriterTable::buildLayoutIs);
//   4. each bucket head: its first slot, or an empty chain naming the next
//      bucket; then the bucket count.
// The result is exactly a table the insert path could have built: what the
// validator proves before any reader sees it (MirakWriter::validate runs on
// it in the tests).
template <TablePolicy OpsT>
void MirakWriter<OpsT>::carrySalvage() {
  uint32_t const count = salvageImage_.count();
  // Build step 1: (rhash << 32 | record) sorted by a stable LSD radix sort on
  // the rhash, three passes of 11 bits (8-byte pairs move, never the
  // records); records are in old slot order, so ties stay in it.
  std::vector<uint64_t> order(count);
  for (uint32_t i = 0; i < count; i++) {
    uint32_t const hash = ops_.hash(Ops::key(salvageImage_.value(i)));
    order[i] = uint64_t(Lomi::Util::reverse(hash)) << 32 | i;
  }
  {
    std::vector<uint64_t> spare(count);
    constexpr uint32_t kDigit = 11, kRadix = 1u << kDigit;
    std::vector<uint32_t> counts(kRadix + 1);
    for (uint32_t shift = 32; shift < 64; shift += kDigit) {
      std::fill(counts.begin(), counts.end(), 0u);
      for (uint64_t x : order) counts[((x >> shift) & (kRadix - 1)) + 1]++;
      for (uint32_t d = 0; d < kRadix; d++) counts[d + 1] += counts[d];
      for (uint64_t x : order) spare[counts[(x >> shift) & (kRadix - 1)]++] = x;
      order.swap(spare);
    }
  }
  auto const keyOf = [this](uint64_t x) -> Key {
    return Ops::key(salvageImage_.value(static_cast<uint32_t>(x)));
  };
  uint32_t kept = 0;
  for (uint32_t a = 0; a < count;) {
    uint32_t b = a + 1;
    while (b < count && (order[b] >> 32) == (order[a] >> 32)) b++;
    // Equal rhash: the chain orders by key; equal keys stay in slot order.
    if (b - a > 1) {
      std::stable_sort(order.begin() + a, order.begin() + b,
                       [&](uint64_t x, uint64_t y) { return keyOf(x) < keyOf(y); });
    }
    for (uint32_t j = a; j < b; j++) {
      if (j > a && Ops::keyEqual(keyOf(order[j]), keyOf(order[kept - 1]))) {
        startOutcome_.duplicates++;
        continue;
      }
      order[kept++] = order[j];
    }
    a = b;
  }
  // Build step 2.
  uint32_t const oldCapacity = slots_.capacity();
  uint32_t capacity = oldCapacity;
  if (kept > capacity) {
    if (slots_.fixedSize()) {
      // The records of the lowest old slots stay, as the insert path, which
      // took them in slot order, would have kept them.
      std::vector<uint32_t> rows(kept);
      for (uint32_t j = 0; j < kept; j++) rows[j] = static_cast<uint32_t>(order[j]);
      std::nth_element(rows.begin(), rows.begin() + (capacity - 1), rows.end());
      uint32_t const last = rows[capacity - 1];
      uint32_t k = 0;
      for (uint32_t j = 0; j < kept; j++) {
        if (static_cast<uint32_t>(order[j]) <= last) order[k++] = order[j];
      }
      startOutcome_.noRoom += kept - k;
      kept = k;
    } else {
      capacity = slots_.buildCapacity(kept);
    }
  }
  auto& buckets = map_.bucketWriter();
  uint32_t const numBuckets = std::max(buckets.numBuckets(), std::bit_ceil(std::max(kept, 1u)));
  typename Slots::CriticalSectionAnchor anchor(&slots_);
  if (numBuckets > buckets.numBuckets()) buckets.resize(numBuckets);
  // Build step 3.
  slots_.buildLayoutIs(capacity, kept);
  (void)tessel_.mostSlotsIs(slots_.header()->mostSlots);
  uint32_t const bits = buckets.bucketFactor();
  uint32_t const mask = numBuckets - 1;
  auto const successor = [&](uint32_t bucket) {
    return bucket == numBuckets - 1 ? Link::kEndOfTable
                                    : Link::endOfChainTo(MirakCore::bitReversePermute(bucket, bits));
  };
  auto const bucketAt = [&](uint32_t j) {
    return Lomi::Util::reverse(static_cast<uint32_t>(order[j] >> 32)) & mask;
  };
  // Build step 4, in bucket order, so that the stores into the bucket file
  // run in sequence. Bucket b sits at walk position p = b reversed in
  // `bits`, the top `bits` bits of its records' rhash; `order` is sorted by
  // rhash, so firstAt[p] (the first record at position p or beyond, found
  // in one pass) and firstAt[p + 1] bound bucket b's records. Those two
  // reads are random in a 4-byte-per-bucket array: the ones kAhead buckets
  // on are fetched while this one is stored.
  constexpr uint32_t kAhead = 16;
  std::vector<uint32_t> firstAt(uint64_t(numBuckets) + 1);
  auto const linkHeads = [&] {
    auto const positionOf = [bits](uint32_t x) { return bits ? x >> (32 - bits) : 0; };
    for (uint32_t p = 0, j = 0; p <= numBuckets; p++) {
      while (j < kept && positionOf(static_cast<uint32_t>(order[j] >> 32)) < p) j++;
      firstAt[p] = j;
    }
    auto const positionOfBucket = [&](uint32_t b) { return positionOf(Lomi::Util::reverse(b)); };
    for (uint32_t bucket = 0; bucket < numBuckets; bucket++) {
      if (bucket + kAhead < numBuckets) {
        __builtin_prefetch(&firstAt[positionOfBucket(bucket + kAhead)]);
      }
      uint32_t const p = positionOfBucket(bucket);
      Link& head = buckets[bucket];
      uint32_t const next = firstAt[p] < firstAt[p + 1] ? firstAt[p] : successor(bucket);
      Mem::storeRelease(head, Link{head.version + Link::kVersionStep, next});
    }
  };
  // Steps 3 and 4 store into different files and read only `order` (and
  // step 4 its own firstAt): a large build links the heads on a second
  // thread meanwhile. It is joined before anything is published (the bucket
  // count below) and never outlives this call, so no fork can copy it; if it
  // cannot be started the heads are linked here after the slots.
  std::thread heads;
  if (numBuckets >= Impl::kThreadedHeads) {
    try {
      heads = std::thread(linkHeads);
    } catch (std::system_error const&) {
    }
  }
  SlotT* const slots = slots_.slots().base;
  for (uint32_t j = 0; j < kept; j++) {
    if (j + kAhead < kept) {
      __builtin_prefetch(&salvageImage_.value(static_cast<uint32_t>(order[j + kAhead])));
    }
    if constexpr (kStepHook) {
      if (j == kept / 2) step(MirakCore::WriteStep::salvageCarrying);
    }
    SlotT& s = slots[j];
    uint32_t const bucket = bucketAt(j);
    uint32_t const next = j + 1 < kept && bucketAt(j + 1) == bucket ? j + 1 : successor(bucket);
    uint32_t const word = slots_.firstWord(j, oldCapacity);
    uint32_t const linkVersion = j < oldCapacity ? s.link.version : 0;
    Mem::storeRelease(s.link, Link{linkVersion + Link::kVersionStep, next});
    Mem::storeRelease(s.rhash, static_cast<uint32_t>(order[j] >> 32));
    std::memcpy(static_cast<void*>(&s.value), &salvageImage_.value(static_cast<uint32_t>(order[j])),
                sizeof(Value));
    Mem::storeRelease(s.versionFlags, (word + 4) | SlotTable::OCCUPIED);
  }
  if (heads.joinable()) {
    heads.join();
  } else {
    linkHeads();
  }
  auto& countPair = buckets.header()->numBuckets;
  if (countPair.value != numBuckets) {
    Mem::storeRelease(countPair, Mem::VersionedRef<unsigned int>{countPair.version + 1, numBuckets});
  }
  map_.thresholdsIs();
  counters_.slotsAllocated += kept;
  counters_.inserts += kept;
  salvageImage_.clear();
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::detach(bool) {
  FMTRACE(handler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
          rootPath_);
  if (directNew_) {
    Lomi::fmassert(handler_, "MirakWriter", __func__,
                   "unbalanced directSlot:{} containing value:{} - Make sure the DirectIs/Commit "
                   "are properly paired!",
                   directSlot_, Ops::valueText(slots_.slots()[directSlot_].value));
  }
  tessel_.onDetach();
  if (owner_) {
    // Clear the owner record, but only if it still names this process: a
    // writer that took the directory over (by cleanup's force) keeps its own.
    try {
      Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
      auto const record = ownerFile.record();
      std::string const name = record ? record->tunnetInfo.socketName() : std::string();
      bool const mine = Parcel::WriterLock::ownerIsMe(handler_, name) ||
                        (name.empty() && record && record->writerPid == ::getpid());
      if (mine) {
        FMTRACE(handler_, 5, "MirakWriter", "clearing tunnetInfo");
        ownerFile.tunnetInfoIs(Parcel::TunnetInfo());
      }
    } catch (Lomi::CorruptionDetectedException const& e) {
      FMTRACE(handler_, 0, "MirakWriter", "ignoring owner file corruption:{}", e.msg());
    }
    owner_ = false;
  }
  if (rusk_) rusk_->close();
  slots_.detach();
  map_.bucketWriter().detach();
  // Last: from here on another writer may take the directory.
  lifetime_.release();
  this->initializedIs(false);
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::cleanup() {
  FMTRACE(handler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
          rootPath_);
  // Cleanup step 1.
  Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
  ownerFile.lock();
  if (!localMem_) {
    Parcel::WriterLock::acquireWriterLock(handler_, rootPath_, ownerFile, true, socketName());
  }
  // Cleanup step 2: a damaged owner file does not stop the cleaning.
  owner_ = ownerFile.validate();
  if (!owner_) {
    FMTRACE(handler_, 1, "MirakWriter",
            "owner file corruption detected but continuing with cleanup, dumped owner file: {}",
            ownerFile.headerToString());
  }
  // Cleanup step 3.
  FMTRACE(handler_, 1, "MirakWriter", "removing Mirak files in {}", rootPath_);
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  tessel_.cleanup();
  map_.bucketWriter().cleanup();
  if (!localMem_) {
    FMTRACE(handler_, 3, "MirakWriter", "removing file: {}", slots_.wrapper().getFilename());
    if (!slots_.wrapper().unlink()) {
      throw Lomi::InvalidInitializeException("cannot remove the slot file of {}: {}", rootPath_,
                                             slots_.wrapper().lastError());
    }
  }
  Parcel::KestorFile(handler_, rootPath_, localMem_).remove();
  if (!localMem_) {
    std::string error;
    if (!removeSalvageFiles(rootPath_.path(), error)) {
      throw Lomi::InvalidInitializeException("{}", error);
    }
    for (char const* name : {Mem::Util::Clone::CONTROL_FILENAME, Parcel::WriterLock::kLifetimeFile,
                              START_OUTCOME_FILENAME}) {
      std::string const path = rootPath_.filePath(name);
      if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw Lomi::InvalidInitializeException("cannot remove {}: {}", path, std::strerror(errno));
      }
    }
    lifetime_.release();
  }
  // Cleanup step 4.
  ownerFile.remove();
  owner_ = false;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validateFiles() {
  map_.bucketWriter().validateFile();
  if (!localMem_) {
    Mirak::Util::validateFile(handler_, slots_.wrapper().getFilename(),
                              Slots::Geometry::headerSize);
  }
  tessel_.validateFile();
  Parcel::KestorFile(handler_, rootPath_, localMem_).validate(kestorId_);
  Parcel::OwnerFile(handler_, rootPath_, localMem_).validateFile();
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  return true;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validate(Parcel::KestorId kestor, std::string& error, bool checkOwner) {
  Validator<Ops, MirakWriter> validator(handler_, *this);
  bool ok;
  // A damaged table is reported, never thrown.
  try {
    ok = validator.doValidate(kestor);
    error = validator.error();
  } catch (Lomi::CorruptionDetectedException const& e) {
    error = e.msg();
    FMTRACE(handler_, 0, "MirakWriter", "caught: {}", error);
    ok = false;
  } catch (Lomi::MemoryResourceException const& e) {
    error = e.msg();
    FMTRACE(handler_, 0, "MirakWriter", "caught: {}", error);
    ok = false;
  }
  if (!ok) FMTRACE(handler_, 0, "MirakWriter", "Mirak {} validation failed: {}", rootPath_, error);
  if (checkOwner) ok = Parcel::OwnerFile(handler_, rootPath_, localMem_).validate() && ok;
  return ok;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validate() {
  std::string error;
  bool const ok = validate(kestorId_, error, false);
  if (!ok) FMTRACE(handler_, 0, "MirakWriter", "{}: {}", rootPath_, error);
  return ok;
}

template <TablePolicy OpsT>
std::string MirakWriter<OpsT>::dumpHeaders() const {
  SlotTable::Header const* h = slots_.header();
  // The queue's place at the end stays empty, also in a table with a queue:
  // its headers have a dump of their own (TesselWriter::headersToString).
  return fmt::format("Mirak table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.name(),
                     h ? h->toString() : std::string("slot table: not attached"),
                     map_.bucketWriter().toString());
}

}  // namespace Mirak
