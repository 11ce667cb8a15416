// The harmless defaults of every back end, and the refusals of writes.
#include "Mirak/MirakInterface.h"

namespace Mirak {

MirakInterfaceBase::~MirakInterfaceBase() = default;

// A back end without files of its own has nothing that validation could find
// damaged; answering false would send a writer sentry after a corruption
// that does not exist.
bool MirakInterfaceBase::validate() {
  return true;
}
bool MirakInterfaceBase::validateFiles() {
  return true;
}
void MirakInterfaceBase::cleanup() {}

bool MirakInterfaceBase::quiesced() const {
  return false;
}
bool MirakInterfaceBase::connected() const {
  return false;
}
Writer::Counters MirakInterfaceBase::writerCounters() const {
  return Writer::Counters();
}
Reader::Counters MirakInterfaceBase::readerCounters() const {
  return Reader::Counters();
}
void MirakInterfaceBase::notifyingIs(bool) {}
void MirakInterfaceBase::yieldTimeIs(double const&) {}
Sequence MirakInterfaceBase::sequence() const {
  return 0;
}
bool MirakInterfaceBase::clientQuiesced(std::string const&) const {
  return false;
}
Parcel::KestorId MirakInterfaceBase::kestorId() const {
  return Parcel::KestorId();
}

void MirakInterfaceBase::validateVersionAnchorHookIs(VersionAnchorHook hook) {
  versionAnchorHook_ = hook;
}

Mem::CacheVersionAnchor MirakInterfaceBase::getCacheVersionAnchor() const {
  return Mem::CacheVersionAnchor();
}

void MirakInterfaceBase::criticalTaskCheckIs(bool) {}
bool MirakInterfaceBase::criticalTaskCheck() const {
  return false;
}
void MirakInterfaceBase::scratchpadIs(uint64_t) {}
uint64_t MirakInterfaceBase::scratchpad() const {
  return 0;
}

void MirakInterfaceBase::throwWriteRefused() {
  throw Lomi::NoPermissionException("write to read-only Mirak table");
}

void MirakInterfaceBase::throwRemoveRefused() {
  throw Lomi::NoPermissionException("remove to read-only Mirak table");
}

}  // namespace Mirak
