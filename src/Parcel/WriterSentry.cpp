// The writer sentry: validate the table when a reader reports damage.
#include "Parcel/WriterSentry.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

namespace Parcel {

namespace {

Mem::NaoRootPath const& sharedOnly(Mem::NaoRootPath const& rootPath) {
  if (rootPath.isLocal()) {
    throw Lomi::InvalidInitializeException(
        "Mirak table {} is local: a writer sentry needs the files of a shared table",
        rootPath.str());
  }
  return rootPath;
}

}  // namespace

WriterSentry::Notifiee::~Notifiee() = default;

WriterSentry::WriterSentry(Lomi::Platform::DebugHandler& handler, Notifiee* notifiee,
                           Mem::NaoRootPath const& rootPath)
    : WriterSentry(handler, notifiee, rootPath, Mem::RootPath::eventLoop()) {}

WriterSentry::WriterSentry(Lomi::Platform::DebugHandler& handler, Notifiee* notifiee,
                           Mem::NaoRootPath const& rootPath, Lomi::EventLoop& loop)
    : handler_(handler),
      notifiee_(notifiee),
      rootPath_(sharedOnly(rootPath)),
      loop_(loop),
      watch_(handler, rootPath_.path(), loop,
             [this](Mem::Impl::DirectoryWatch::Change const& c) { onChange(c); }) {
  FMTRACE(handler_, 2, "WriterSentry", "{}", rootPath_);
}

WriterSentry::~WriterSentry() = default;

void WriterSentry::event(std::string const& name, bool) {
  FMTRACE(handler_, 3, "WriterSentry", "{} event:{}", rootPath_, name);
  if (name == eventInit) {
    if (watch_.start() && markerPresent()) validateSoon();
  } else if (name == eventTryAttach || name == eventNotifEnabled || name == eventDisconnect ||
             name == eventFlushComplete) {
    return;
  } else {
    throw Lomi::InvalidInitializeException("writer sentry of {}: unknown event \"{}\"", rootPath_,
                                           name);
  }
}

bool WriterSentry::markerPresent() const {
  struct stat st;
  return ::stat(rootPath_.filePath(kMarkerName).c_str(), &st) == 0;
}

void WriterSentry::onChange(Mem::Impl::DirectoryWatch::Change const& change) {
  using Kind = Mem::Impl::DirectoryWatch::Change::Kind;
  if (change.kind == Kind::appeared || change.kind == Kind::recheck) {
    if (markerPresent()) validateSoon();
    return;
  }
  if (change.kind != Kind::entry || change.name != kMarkerName) return;
  if (change.mask & (IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO)) {
    FMTRACE(handler_, 3, "WriterSentry", "{} corruption reported", rootPath_);
    validateSoon();
  }
}

void WriterSentry::validateSoon() {
  if (validationQueued_) return;
  validationQueued_ = true;
  loop_.deferredTaskIs([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    validationQueued_ = false;
    validateNow();
  });
}

void WriterSentry::validateNow() {
  // A marker removed meanwhile (by a writer start that proved the table)
  // leaves nothing to answer.
  if (!enabled || !markerPresent()) return;
  ++validations_;
  std::weak_ptr<bool> const alive = alive_;
  bool ok = false;
  std::string why = "validation failed";
  try {
    ok = notifiee_->validate();
    if (alive.expired()) return;
    if (ok) ok = notifiee_->validateFiles(rootPath_.path(), 0);
  } catch (Lomi::Exception const& e) {
    if (alive.expired()) return;
    ok = false;
    why = e.msg();
  }
  if (alive.expired()) return;
  if (ok) {
    FMTRACE(handler_, 1, "WriterSentry", "{} validated after a corruption report, kestorId:{}",
            rootPath_, notifiee_->kestorId());
    return;
  }
  ++failedValidations_;
  FMTRACE(handler_, 0, "WriterSentry", "{} corruption report confirmed, kestorId:{}: {}", rootPath_,
          notifiee_->kestorId(), why);
}

}  // namespace Parcel
