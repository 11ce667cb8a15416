#include "Mirak/SlotTable.h"

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/Local.h"

namespace Mirak {

std::string Compatibility::platformType(uint32_t platform) {
  switch (platform) {
    case platformX86_64:
      return "x86_64 little-endian, 8-byte single-copy atomic";
    default:
      return fmt::format("unknown platform {}", platform);
  }
}

namespace SlotTable {

Header* Header::format(void* mem, Lomi::Platform::DebugHandler const& handler, uint32_t numSlots,
                       uint32_t maxSlots, uint16_t constFlags, Parcel::KestorId kestor,
                       std::string const& valueTypeName, uint32_t valueSize, uint32_t hashSeed,
                       void const* defaultValue, uint32_t numSlotsVersion) {
  if (valueTypeName.size() >= kValueTypeLen) {
    throw Lomi::InvalidInitializeException("value typename {} exceeds {} characters", valueTypeName,
                                           kValueTypeLen);
  }
  // Store order; readers of the previous generation may still map the file:
  //   1: kestor, release: a reader that has seen any store of this format
  //      and then loads the kestor (acquire) sees the new one; that is how a
  //      reader tells a re-format from damage (MirakReader::reformatted).
  //   2: numSlots = (numSlotsVersion, numSlots), release, before the fields
  //      that a reader's header copy takes: a copy that overlaps this format
  //      sees the version move and is taken again (Mem::safeHeaderCopy).
  //   3: the other fields, the lookaside slot and the slots.
  auto* h = static_cast<Header*>(mem);
  // Format step 1.
  Mem::storeRelease(h->kestor, kestor.value());
  // Format step 2.
  Mem::storeRelease(h->numSlots, Mem::VersionedRef<unsigned int>{numSlotsVersion, numSlots});
  Mem::releaseFence();
  // Format step 3.
  std::memcpy(h->magic, kMagic, sizeof kMagic);
  h->version = kFormatVersion;
  h->platform = Compatibility::kPlatform;
  // Bytes behind the terminator are left as found; the checksum covers them.
  std::memcpy(h->valueType, valueTypeName.c_str(), valueTypeName.size() + 1);
  h->valueSize = valueSize;
  h->slotSize = slotSizeFor(valueSize);
  h->maxSlots = maxSlots;
  h->constFlags = constFlags;
  // Words that a reader of the previous generation may load while they change.
  Mem::storeRelease(h->runtimeFlags, uint16_t(0));
  Mem::storeRelease(h->occupiedSlots, 0u);
  Mem::storeRelease(h->freeSlots, kNoSlot);
  Mem::storeRelease(h->mostSlots, numSlots);
  h->hashSeed = hashSeed;
  h->scratchpad = 0;
  auto formatSlot = [&](char* p) {
    auto* s = reinterpret_cast<SlotHead*>(p);
    Mem::storeRelease(s->link, SlotLink{0, kNoSlot});
    Mem::storeRelease(s->versionFlags, 0u);
    Mem::storeRelease(s->rhash, 0u);
    std::memcpy(valueBytes(s), defaultValue, valueSize);
  };
  char* base = static_cast<char*>(mem);
  formatSlot(base + kHeaderFixedSize);
  char* slots = base + h->headerSize();
  for (uint32_t i = 0; i < numSlots; i++) formatSlot(slots + uint64_t(i) * h->slotSize);
  h->hash = h->checksum();
  FMTRACE(handler, 3, "SlotTable", "formatted {}", h->toString());
  return h;
}

uint32_t Header::checksum() const {
  Lomi::Impl::HashMix<unsigned int> mix(0x811c9dc5u);
  mix.mix(valueType, kValueTypeLen);
  mix.mixFixedLen<4>(&valueSize);
  mix.mixFixedLen<4>(&slotSize);
  mix.mixFixedLen<4>(&maxSlots);
  mix.mixFixedLen<2>(&constFlags);
  mix.mixFixedLen<4>(&hashSeed);
  return mix.value();
}

bool Header::validate(Lomi::Platform::DebugHandler const& handler, uint64_t fileSize,
                      Parcel::KestorId wantedKestor, std::string& error,
                      uint32_t tableSlotSize) const {
  auto fail = [&](std::string msg) {
    error = std::move(msg);
    FMTRACE(handler, 0, "SlotTable", "{}", error);
    return false;
  };
  uint64_t magicWord;
  std::memcpy(&magicWord, magic, sizeof magicWord);
  uint64_t wantedMagic;
  std::memcpy(&wantedMagic, kMagic, sizeof wantedMagic);
  if (magicWord != wantedMagic) return fail(fmt::format("bad magic: {:x}", magicWord));
  if (version != kFormatVersion) return fail(fmt::format("bad version: {}", version));
  if (!wantedKestor.isZero() && kestor != wantedKestor.value()) {
    return fail(fmt::format("bad kestor:{} wanted:{}", Parcel::KestorId(kestor), wantedKestor));
  }
  if (platform != Compatibility::kPlatform) {
    return fail(fmt::format("bad platform: {} expecting: {}", Compatibility::platformType(platform),
                            Compatibility::platformType(Compatibility::kPlatform)));
  }
  uint32_t computed = checksum();
  if (computed != hash) return fail(fmt::format("checksum fail: {:x} != {:x}", computed, hash));
  uint32_t const capacity = numSlots.value;
  if (occupiedSlots > capacity) {
    return fail(fmt::format("bad occupiedSlots: {} num slots: {}", occupiedSlots, capacity));
  }
  if (freeSlots != kNoSlot && freeSlots >= capacity) {
    return fail(fmt::format("bad freeSlots: {} slots: {}", freeSlots, capacity));
  }
  if (mostSlots < capacity) {
    return fail(fmt::format("bad mostSlots:{} numSlots:{}", mostSlots, capacity));
  }
  uint32_t const tableHeaderSize = kHeaderFixedSize + tableSlotSize;
  if (fileSize < tableHeaderSize) {
    return fail(fmt::format("bad header file size: {} wanted:{}", fileSize, tableHeaderSize));
  }
  if (fileSize >= Mem::Local::maxMappingSize())
    return fail(fmt::format("bad file size:{}", fileSize));
  uint64_t wanted;
  try {
    wanted = Lomi::Util::fileSizeHelper(capacity, tableSlotSize, tableHeaderSize);
  } catch (Lomi::RuntimeException const& e) {
    return fail(fmt::format("bad numSlots: {} message: {}", capacity, e.msg()));
  }
  if (fileSize < wanted) {
    return fail(
        fmt::format("bad shmem size:{} wanted:{} for {} slots", fileSize, wanted, capacity));
  }
  return true;
}

std::string Header::toString() const {
  uint64_t magicWord;
  std::memcpy(&magicWord, magic, sizeof magicWord);
  std::string type(valueType, strnlen(valueType, kValueTypeLen));
  return fmt::format(
      "magic:{:#x} version:{} kestor:{} platform:{} valueType:\"{}\" valueSize:{} slotSize:{} "
      "maxSlots:{} constFlags:{:#x} runtimeFlags:{:#x} hash:{:#x} occupiedSlots:{} freeListHead:{} "
      "mostSlots:{} hashSeed:{} numSlots:{} scratchpad:{}",
      magicWord, version, Parcel::KestorId(kestor), platform, type, valueSize, slotSize, maxSlots,
      constFlags, runtimeFlags, hash, occupiedSlots,
      // The head of the free list, not a count: a slot index, or none.
      freeSlots == 0xffffffffu ? std::string("none") : std::to_string(freeSlots), mostSlots,
      hashSeed, numSlots, scratchpad);
}

}  // namespace SlotTable
}  // namespace Mirak
