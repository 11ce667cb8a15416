// Tessel::TesselReader: a shadow's reader of a table's change queue. It walks
// the queue from its place and hands each live entry to its client's doSlot,
// cut into steps by a time budget, and tells its owner how the walk ended:
// caught up, out of time, or unable to go on without a sweep.
//
// The walk's rules are those of TesselReaderView (R1-R5); this class adds
// what the owner of a shadow needs around them:
//   - The client's doSlot may ask validateNotif() about the entry it was
//     handed; true means the entry still counts, false that a newer entry of
//     the slot is on its way (or the generation moved and the walk re-finds).
//   - A true from doSlot consumes the entry; a false rejects it (see
//     TesselReaderView::rejected): nothing is lost either way.
//   - overrun: the writer issued sequences the queue no longer holds for this
//     reader (it could not queue them, or pruned them before this reader
//     passed them). The owner sweeps all slots and then seek()s to the head
//     it read before the sweep.
//   - reformatted: the queue was re-formatted or removed: only a new attach
//     (with the new kestor) and a sweep help.
//
// The client's doSlot runs inside walk(); it may call validateNotif(), and
// it may detach this reader (the walk then ends as caughtUp with nothing more
// to do). Not thread safe; one thread per reader.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Lomi/Trace.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselReaderView.h"

namespace Tessel {

template <typename Slot = BasicSlot>
class TesselReader {
 public:
  class Client {
   public:
    // `compare`: the local copy may hold this state already; report nothing
    // if it does.
    virtual bool doSlot(Slot slot, Sequence seq, bool compare) = 0;
    // A slot that an entry a few places ahead names: the client may start
    // the loads its doSlot will make (a hint; the entry may turn out stale).
    virtual void prefetch(Slot) {}

   protected:
    ~Client() = default;
  };

  enum class Walk { caughtUp, yielded, overrun, reformatted };

  // How far ahead of the entry in hand the walk names a slot to prefetch:
  // a few doSlot calls' time covers a cache miss of the table and one of
  // the copy.
  static constexpr uint32_t kPrefetchAhead = 8;

  TesselReader(std::string dir, Lomi::Platform::DebugHandler& handler)
      : handler_(handler), view_(std::move(dir), handler) {}
  TesselReader(TesselReader const&) = delete;
  TesselReader& operator=(TesselReader const&) = delete;

  // Maps the queue read-only and checks it is the queue of `kestor`. The
  // place is before every entry until seek(). False with the reason.
  bool attach(uint32_t kestor, std::string& error) {
    quiesced_ = false;
    return view_.attach(kestor, error);
  }
  void detach() {
    view_.detach();
    quiesced_ = false;
  }
  bool attached() const { return view_.attached(); }

  // The writer's last sequence: read it before a sweep, seek() to it after.
  Sequence head() const { return view_.headSequence(); }
  // Continue with the first live entry above `after`.
  void seek(Sequence after) {
    view_.seek(after);
    quiesced_ = false;
  }

  // Hands live entries to `client` until the reader has caught up, or the
  // budget of `seconds` is spent (the clock is read every 64 entries), or the
  // queue can no longer be followed (overrun, reformatted). Throws
  // Lomi::CorruptionDetectedException for a queue damaged under a still
  // generation (see TesselReaderView::next), and what doSlot throws.
  Walk walk(Client& client, double seconds) {
    quiesced_ = false;
    auto const deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(seconds));
    for (uint32_t n = 1;; n++) {
      if (n % 64 == 0 && std::chrono::steady_clock::now() >= deadline) {
        FMTRACE(handler_, 8, "TesselReader", "{} yields after {} entries at seq:{}", view_.dir(),
                n, view_.lastConsumed());
        return Walk::yielded;
      }
      TesselNotification e;
      if (!view_.attached()) return Walk::caughtUp;
      if (!view_.next(e)) {
        if (view_.reformatted()) return Walk::reformatted;
        if (view_.overrun()) return Walk::overrun;
        quiesced_ = true;
        return Walk::caughtUp;
      }
      FMTRACE(handler_, 9, "TesselReader", "seq:{} slot:{}", e.sequence, e.slot);
      if (uint32_t const ahead = view_.peekSlot(kPrefetchAhead); ahead != tombstoneSlot) {
        client.prefetch(Slot(ahead));
      }
      bool const used = client.doSlot(e.slot, e.sequence, true);
      // The client may have detached us.
      if (!view_.attached()) return Walk::caughtUp;
      if (used) {
        view_.consumed();
      } else {
        view_.rejected();
      }
    }
  }

  // Whether the entry handed to doSlot still counts (see the view).
  bool validateNotif() { return view_.validateNotif(); }
  // Caught up: the last walk ended at the queue's end, and the writer has
  // issued no sequence since. The second half matters to an owner asked
  // between a writer's burst and the walk its wake-up starts (the Wake still
  // unread in the socket): the copy is behind by the whole burst then. A
  // keyshadow's walk would not show it, since it reads values from the table
  // and passes over keys the table no longer has.
  bool quiesced() const { return quiesced_ && view_.headSequence() <= view_.lastConsumed(); }
  // The owner's copy is no longer known to be caught up (a sweep starts, the
  // writer went): quiesced() is false until a walk catches up again.
  void quiescedReset() { quiesced_ = false; }
  Sequence lastConsumed() const { return view_.lastConsumed(); }
  uint64_t refinds() const { return view_.refinds(); }
  uint64_t primaryMappedSize() const { return view_.primaryMappedSize(); }
  uint64_t secondaryMappedSize() const { return view_.secondaryMappedSize(); }
  std::string const& dir() const { return view_.dir(); }

 private:
  Lomi::Platform::DebugHandler& handler_;
  TesselReaderView view_;
  bool quiesced_ = false;
};

}  // namespace Tessel
