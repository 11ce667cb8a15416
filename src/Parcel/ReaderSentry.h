// Parcel::ReaderSentry: brings a reader's collection onto its writer's files,
// and off them again, by itself, from the event loop.
//
// A reader collection is mounted on a placeholder; its sentry watches the
// table directory (or, until it exists, its nearest existing ancestor) and
// calls the collection (its Notifiee) when the files change:
//
//   the kestor file is written    attach, if not attached. The writer writes
//                                 it last, by rename, once every other file
//                                 is complete.
//   ... with another id           detach, then attach: the writer formatted
//                                 the files anew under a new generation.
//   ... with the same id          nothing: a restarted writer adopted them.
//   the kestor file is removed    detach: the writer's cleanup ended the
//                                 table (a new kestor attaches again).
//   any other change, unattached  attach, if a kestor file is there.
//   the directory vanishes, or    detach: the files at the path are no longer
//   the path names another one    the ones read (a directory moved aside or
//                                 renamed above the table counts, noticed
//                                 within a second by the watch's check).
//   it appears, or events were    compare the kestor at the path with the one
//   lost (queue overflow)         attached: another one detaches and attaches.
//   a failed attach               tried again on the next change, or by a
//                                 timer after kFirstRetry seconds, doubling
//                                 up to kLastRetry; success resets it.
//
// The writer's death changes no file: an attached reader stays attached and
// keeps reading what is there. The events of the collection (Mem::Sentry):
//   init                  starts the watch; attaches at once if the files
//                         are there. Throws Lomi::InvalidInitializeException
//                         when the directory can't be watched.
//   tryAttach, notificationsEnabled, flushComplete
//                         attach now if not attached and a kestor is there.
//   disconnect            the writer went away: detach, and wait for the
//                         next kestor file before attaching again. A
//                         collection that serves a copy without its writer
//                         (disconnectedActiveReader) is not detached: a
//                         kestor file with the same id then attaches it again
//                         (it rejoins the writer that adopted the files),
//                         one with another id detaches and attaches.
// While `enabled` is 0 the sentry keeps watching and starts nothing.
//
// Contract: the Notifiee outlives the sentry (the collection owns it). A
// Notifiee call may destroy the sentry; the sentry notices and stops.
// Exceptions of `attach` and `detach` inside the loop are traced at level 0
// and count as a failed attach; they never leave the loop.
//
// Thread safety: none; the loop's thread, which is the collection's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mem/RootPath.h"
#include "Mem/Sentry.h"
#include "Parcel/KestorId.h"

namespace Parcel {

class ReaderSentry : public Mem::Sentry {
 public:
  // What the sentry calls on its collection.
  class Notifiee {
   public:
    virtual ~Notifiee();
    // Attached to the files: a back end reports a mount status of 1 or 2.
    virtual bool readerFullyAttached() const = 0;
    virtual bool notifying() const = 0;
    virtual bool localMem() const = 0;
    // The generation of the files the collection is attached to.
    virtual KestorId kestorId() const = 0;
    virtual std::string modeStr() const = 0;
    virtual void detach(bool force) = 0;
    // `event` names what caused the attempt (an event name, or "kestor",
    // "change", "retry", "directory").
    virtual void attach(std::string const& event) = 0;
    virtual bool disconnectedActiveReader() const = 0;
  };

  static constexpr double kFirstRetry = 0.01;
  static constexpr double kLastRetry = 2.0;

  // Registers with `loop`; watches nothing before event(eventInit). Throws
  // Lomi::InvalidInitializeException for a local table (it has no files) or
  // when no watch can be made.
  ReaderSentry(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
               Notifiee* notifiee);
  ReaderSentry(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
               Notifiee* notifiee, Lomi::EventLoop& loop);
  ~ReaderSentry() override;

  void event(std::string const& name, bool arg) override;
  void onDetach() override;

  // For tests and traces.
  bool watchingTable() const { return watch_.onTable(); }
  std::string const& watchedPath() const { return watch_.watchedPath(); }
  uint64_t attachAttempts() const { return attachAttempts_; }
  uint64_t detaches() const { return detaches_; }
  // The generation the collection attached to; 0 while not attached.
  KestorId attachedKestor() const { return attachedKestor_; }
  bool retryPending() const { return retryTimer_ != 0; }
  double nextRetryDelay() const { return retryDelay_; }

 private:
  void onChange(Mem::Impl::DirectoryWatch::Change const& change);
  KestorId kestorOnDisk() const;
  // Follows the kestor at the path: detach if it is not the one attached,
  // attach if one is there.
  void recheck(std::string const& why);
  // Attaches unless disabled, attached, or without a kestor file; a failure
  // arms the retry timer.
  void attachNow(std::string const& why);
  void detachNow(std::string const& why);
  // An attach of a collection that is attached already and lost its writer.
  void rejoinNow(std::string const& why);
  void retryArm();
  void retryDel();

  Lomi::Platform::DebugHandler& handler_;
  Mem::NaoRootPath rootPath_;
  Notifiee* notifiee_;
  Lomi::EventLoop& loop_;
  Mem::Impl::DirectoryWatch watch_;
  KestorId attachedKestor_;
  // After a disconnect only a kestor file written anew (or tryAttach) attaches.
  bool awaitingWriter_ = false;
  uint64_t retryTimer_ = 0;
  double retryDelay_ = kFirstRetry;
  uint64_t attachAttempts_ = 0;
  uint64_t detaches_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Parcel
