// Parcel::WriterSentry: the writer's ear for readers that found damage.
//
// A reader that meets a table it can't trust leaves the marker file
// "corruption-detected" in the table directory. The writer's sentry watches
// the directory for it and has its collection (the Notifiee) prove the table:
//
//   validate() true    the report was stale or the damage was on the reader's
//                      side; validateFiles() checks the files and removes the
//                      marker.
//   validate() false   traced at level 0 and counted; the marker stays for
//                      the operator and for the next writer start, which
//                      re-formats a table that fails validation.
//
// Several markers written in a row (several readers) make one validation: it
// runs as a deferred task of the loop. A marker already present when the
// sentry starts (event init) is validated too.
//
// Events of the collection (Mem::Sentry): init starts the watch (throws
// Lomi::InvalidInitializeException when the directory can't be watched); the
// reader-side events tryAttach, notificationsEnabled, disconnect and
// flushComplete mean nothing to a writer and are ignored. While `enabled` is
// 0 no validation starts.
//
// Contract: the Notifiee outlives the sentry. Exceptions of the Notifiee's
// calls inside the loop are traced at level 0, counted as a failed
// validation, and never leave the loop.
//
// Thread safety: none; the loop's thread, which is the writer's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mem/RootPath.h"
#include "Mem/Sentry.h"
#include "Parcel/KestorId.h"

namespace Parcel {

class WriterSentry : public Mem::Sentry {
 public:
  class Notifiee {
   public:
    virtual ~Notifiee();
    virtual KestorId kestorId() const = 0;
    virtual bool validate() = 0;
    // Both arguments are the sentry's: the table's directory and 0.
    virtual bool validateFiles(std::string const& path, unsigned int mask) = 0;
  };

  // The marker a reader leaves; the same name as Mirak::Util's.
  static constexpr char const kMarkerName[] = "corruption-detected";

  WriterSentry(Lomi::Platform::DebugHandler& handler, Notifiee* notifiee,
               Mem::NaoRootPath const& rootPath);
  WriterSentry(Lomi::Platform::DebugHandler& handler, Notifiee* notifiee,
               Mem::NaoRootPath const& rootPath, Lomi::EventLoop& loop);
  ~WriterSentry() override;

  void event(std::string const& name, bool arg) override;

  uint64_t validations() const { return validations_; }
  uint64_t failedValidations() const { return failedValidations_; }
  bool watchingTable() const { return watch_.onTable(); }

 private:
  void onChange(Mem::Impl::DirectoryWatch::Change const& change);
  void validateSoon();
  void validateNow();
  bool markerPresent() const;

  Lomi::Platform::DebugHandler& handler_;
  Notifiee* notifiee_;
  Mem::NaoRootPath rootPath_;
  Lomi::EventLoop& loop_;
  Mem::Impl::DirectoryWatch watch_;
  bool validationQueued_ = false;
  uint64_t validations_ = 0;
  uint64_t failedValidations_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Parcel
