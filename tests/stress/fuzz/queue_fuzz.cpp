// libFuzzer target: the change queue's reader over damaged queue files. A
// table with a queue is made once (its queue compacted a few times, so both
// notification tables hold entries, tombstones and a moved base); each input
// patches or cuts one of the three queue files, and a TesselReaderView
// attaches and walks every live entry, consuming, rejecting and re-checking
// them as a shadow does, then walks again from a sequence in the middle.
// It must come back: attach refused with a reason, a walk that ends, or
// Lomi::CorruptionDetectedException. A crash, a sanitizer report, a walk
// that yields more entries than the files can hold, an entry naming a slot
// beyond the header's mostSlots, or sequences that do not rise are findings.
//
// Input: byte 0 picks the file (low two bits: tessel, tessel.0, tessel.1) and
// whether to cut it (bit 7: the file is truncated at the offset, the rest of
// the input is ignored); bytes 1..4 the offset (little endian, modulo the
// file's size); the rest is written there, clipped at the file's end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Exception.h"
#include "Tessel/TesselFormat.h"
#include "Tessel/TesselReaderView.h"
#include "stress/fuzz/GoldenFiles.h"

namespace {

constexpr char kTable[] = "fuzz/queue";
constexpr char const* kFiles[] = {"tessel", "tessel.0", "tessel.1"};
using Record = FlowTracking::HoIpFlowStatus;

struct State {
  uint32_t kestor = 0;
  // The damaged header's mostSlots: no entry yielded may name a slot at or
  // beyond it.
  uint32_t mostSlots = 0;
  FuzzTest::GoldenFiles golden;
};

State& state() {
  static State s;
  return s;
}

[[noreturn]] void finding(std::string const& what) {
  std::fprintf(stderr, "queue reader: %s\n", what.c_str());
  std::abort();
}

// One walk from `after`: every live entry, each consumed or (every third)
// rejected and met again or stepped over. Returns the entries yielded.
uint64_t walk(Tessel::TesselReaderView& view, Tessel::Sequence after, uint64_t bound) {
  view.seek(after);
  Tessel::TesselNotification n;
  uint64_t yielded = 0;
  Tessel::Sequence last = after;
  while (view.next(n)) {
    if (++yielded > bound) finding("the walk does not end");
    if (n.sequence <= last) finding("a yielded sequence does not rise");
    if (n.slot >= state().mostSlots) finding("an entry names a slot beyond mostSlots");
    bool const still = view.validateNotif();
    if (still && yielded % 3 != 0) {
      view.consumed();
      last = n.sequence;
    } else {
      view.rejected();
    }
  }
  return yielded;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string const base = FuzzTest::makeBase();
  {
    auto w =
        FlowTrackingTest::makeSharedWriter<Record>(kTable, FlowTrackingTest::sharedDescriptor(512));
    // Overwrites retire entries (tombstones); the many rounds fill the queue
    // past its first table, so it compacts and flips.
    for (uint32_t round = 0; round < 6; round++) {
      for (uint32_t i = 0; i < 300; i++) {
        w->write(FlowTrackingTest::row<Record>(i, round), true);
      }
      FlowTracking::TableValue<Record> removed;
      for (uint32_t i = 40 * round; i < 40 * round + 20; i++) {
        w->remove(FlowTrackingTest::row<Record>(i).key(), removed);
      }
    }
    state().kestor = w->kestorId().value();
  }
  state().golden.keep(base + "/" + kTable, kFiles);
  for (auto const& [name, bytes] : state().golden.bytes) {
    if (bytes.empty()) std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 5) return 0;
  std::string const target = kFiles[(data[0] & 3) % std::size(kFiles)];
  bool const cut = (data[0] & 0x80) != 0;
  uint64_t bound = 0;
  state().golden.restore(target, cut, data, size, [&](std::string const& name, auto const& copy) {
    // A walk yields each entry of a table at most once per re-find, and a
    // static file re-finds at most once per table: twice the entries the
    // two files can hold, plus slack, bounds a sound walk.
    if (name == "tessel" && copy.size() >= sizeof(Tessel::TesselHeader)) {
      std::memcpy(&state().mostSlots, copy.data() + offsetof(Tessel::TesselHeader, mostSlots),
                  sizeof(uint32_t));
    }
    if (name != "tessel") bound += 2 * (copy.size() / sizeof(Tessel::TesselEntry)) + 16;
  });
  Tessel::TesselReaderView view(state().golden.dir, FlowTrackingTest::readerTestHandler());
  std::string error;
  if (!view.attach(state().kestor, error)) {
    if (error.empty()) finding("attach refused without a reason");
    return 0;
  }
  try {
    walk(view, 0, bound);
    // From the middle: the binary search of a re-find over damaged entries.
    walk(view, view.headSequence() / 2, bound);
  } catch (Lomi::CorruptionDetectedException const& e) {
    if (e.msg().empty()) finding("corruption reported without a reason");
  }
  return 0;
}
