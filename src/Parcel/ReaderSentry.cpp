// The reader sentry: attach, re-attach and detach a reader collection as its
// writer's files come, change generation and go.
#include "Parcel/ReaderSentry.h"

#include <sys/inotify.h>

#include <algorithm>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Parcel/KestorFile.h"
#include "Parcel/WriterSentry.h"

namespace Parcel {

namespace {

Mem::NaoRootPath const& sharedOnly(Mem::NaoRootPath const& rootPath) {
  if (rootPath.isLocal()) {
    throw Lomi::InvalidInitializeException(
        "Mirak table {} is local: a reader sentry needs the files of a shared table",
        rootPath.str());
  }
  return rootPath;
}

bool isKestor(std::string const& name) {
  return name == KestorFile::KESTOR_NAME;
}

}  // namespace

ReaderSentry::Notifiee::~Notifiee() = default;

ReaderSentry::ReaderSentry(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                           Notifiee* notifiee)
    : ReaderSentry(handler, rootPath, notifiee, Mem::RootPath::eventLoop()) {}

ReaderSentry::ReaderSentry(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                           Notifiee* notifiee, Lomi::EventLoop& loop)
    : handler_(handler),
      rootPath_(sharedOnly(rootPath)),
      notifiee_(notifiee),
      loop_(loop),
      watch_(handler, rootPath_.path(), loop,
             [this](Mem::Impl::DirectoryWatch::Change const& c) { onChange(c); }) {
  FMTRACE(handler_, 2, "ReaderSentry", "{}", rootPath_);
}

ReaderSentry::~ReaderSentry() {
  retryDel();
}

void ReaderSentry::event(std::string const& name, bool) {
  FMTRACE(handler_, 3, "ReaderSentry", "{} event:{} enabled:{}", rootPath_, name, enabled);
  if (name == eventInit) {
    // The files may have been complete long before the reader came.
    if (watch_.start()) attachNow(name);
  } else if (name == eventTryAttach || name == eventNotifEnabled || name == eventFlushComplete) {
    if (name == eventTryAttach) awaitingWriter_ = false;
    attachNow(name);
  } else if (name == eventDisconnect) {
    retryDel();
    awaitingWriter_ = true;
    // A shadow that serves its copy without a writer stays attached: the
    // next kestor file tells whether a writer adopted the files (rejoin) or
    // made new ones (detach, attach).
    if (enabled && notifiee_->readerFullyAttached() && !notifiee_->disconnectedActiveReader()) {
      detachNow(name);
    }
  } else {
    throw Lomi::InvalidInitializeException("reader sentry of {}: unknown event \"{}\"", rootPath_,
                                           name);
  }
}

void ReaderSentry::onDetach() {
  attachedKestor_ = KestorId();
}

KestorId ReaderSentry::kestorOnDisk() const {
  return KestorFile(handler_, rootPath_, false).read();
}

void ReaderSentry::onChange(Mem::Impl::DirectoryWatch::Change const& change) {
  using Kind = Mem::Impl::DirectoryWatch::Change::Kind;
  if (change.kind == Kind::appeared || change.kind == Kind::recheck) {
    FMTRACE(handler_, 3, "ReaderSentry", "{} {}", rootPath_,
            change.kind == Kind::appeared ? "appeared" : "recheck");
    recheck(change.kind == Kind::appeared ? "directory" : "recheck");
    return;
  }
  if (change.kind == Kind::vanished) {
    // The directory the reader's files were in is no longer at the table's
    // path: whatever writer still writes them, it is not the one at the
    // path. The reader lets go and follows the path.
    FMTRACE(handler_, 2, "ReaderSentry", "{} vanished", rootPath_);
    if (enabled && notifiee_->readerFullyAttached()) detachNow("directory moved or removed");
    return;
  }
  FMTRACE(handler_, 3, "ReaderSentry", "{} file:{} mask:{:#x}", rootPath_, change.name,
          change.mask);
  if (!enabled) return;
  // A failed attach leaves the corruption marker; a sentry that took its own
  // write for news would attach, fail and write again without end. The
  // marker is for the writer's sentry; failures here wait for the timer.
  if (change.name == WriterSentry::kMarkerName) return;
  bool const attached = notifiee_->readerFullyAttached();
  if (isKestor(change.name)) {
    if (change.mask & (IN_DELETE | IN_MOVED_FROM)) {
      // The writer's cleanup: the table is over, whatever stays mapped.
      if (attached) detachNow("kestor removed");
      return;
    }
    KestorId const onDisk = kestorOnDisk();
    if (onDisk.isZero()) return;  // not a complete record: the next write tells
    awaitingWriter_ = false;
    if (attached) {
      if (onDisk == attachedKestor_) {
        // The writer adopted its files; a shadow that lost its writer joins
        // the new one.
        if (notifiee_->disconnectedActiveReader()) rejoinNow("kestor");
        return;
      }
      FMTRACE(handler_, 1, "ReaderSentry", "{} re-formatted, kestorId {} -> {}", rootPath_,
              attachedKestor_, onDisk);
      std::weak_ptr<bool> const alive = alive_;
      detachNow("kestor");
      if (alive.expired()) return;
    }
    retryDel();
    retryDelay_ = kFirstRetry;
    attachNow("kestor");
    return;
  }
  if (!attached && !awaitingWriter_) attachNow("change");
}

void ReaderSentry::recheck(std::string const& why) {
  if (!enabled) return;
  if (notifiee_->readerFullyAttached()) {
    KestorId const onDisk = kestorOnDisk();
    if (onDisk == attachedKestor_) {
      // The same files: nothing to follow, unless a writer must be rejoined.
      if (notifiee_->disconnectedActiveReader()) rejoinNow(why);
      return;
    }
    FMTRACE(handler_, 1, "ReaderSentry", "{} ({}): kestorId {} -> {}", rootPath_, why,
            attachedKestor_, onDisk);
    std::weak_ptr<bool> const alive = alive_;
    detachNow(why);
    if (alive.expired() || onDisk.isZero()) return;
    // Another generation stands at the path: its writer wrote it after the
    // one the reader left, whatever a disconnect said before.
    awaitingWriter_ = false;
  }
  if (!awaitingWriter_) attachNow(why);
}

void ReaderSentry::attachNow(std::string const& why) {
  if (!enabled || notifiee_->readerFullyAttached()) return;
  if (awaitingWriter_) return;
  if (kestorOnDisk().isZero()) return;
  retryDel();
  ++attachAttempts_;
  std::weak_ptr<bool> const alive = alive_;
  try {
    notifiee_->attach(why);
  } catch (Lomi::Exception const& e) {
    if (alive.expired()) return;
    FMTRACE(handler_, 0, "ReaderSentry", "{} attach ({}) failed: {}", rootPath_, why, e.msg());
  }
  if (alive.expired()) return;
  if (notifiee_->readerFullyAttached()) {
    attachedKestor_ = notifiee_->kestorId();
    retryDelay_ = kFirstRetry;
    FMTRACE(handler_, 2, "ReaderSentry", "{} attached ({}) kestorId:{}", rootPath_, why,
            attachedKestor_);
    return;
  }
  retryArm();
}

void ReaderSentry::rejoinNow(std::string const& why) {
  FMTRACE(handler_, 2, "ReaderSentry", "{} rejoining the writer ({})", rootPath_, why);
  try {
    notifiee_->attach(why);
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler_, 0, "ReaderSentry", "{} rejoin ({}) failed: {}", rootPath_, why, e.msg());
  }
}

void ReaderSentry::detachNow(std::string const& why) {
  FMTRACE(handler_, 2, "ReaderSentry", "{} detaching ({})", rootPath_, why);
  retryDel();
  ++detaches_;
  attachedKestor_ = KestorId();
  try {
    notifiee_->detach(false);
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler_, 0, "ReaderSentry", "{} detach ({}) failed: {}", rootPath_, why, e.msg());
  }
}

void ReaderSentry::retryArm() {
  if (retryTimer_) return;
  double const delay = retryDelay_;
  retryDelay_ = std::min(retryDelay_ * 2, kLastRetry);
  FMTRACE(handler_, 3, "ReaderSentry", "{} retry in {}s", rootPath_, delay);
  retryTimer_ = loop_.timerIs(delay, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    retryTimer_ = 0;
    attachNow("retry");
  });
}

void ReaderSentry::retryDel() {
  if (!retryTimer_) return;
  loop_.timerDel(retryTimer_);
  retryTimer_ = 0;
}

}  // namespace Parcel
