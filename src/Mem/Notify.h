// Mem::Notify<Key, Value>: the client callbacks of one collection.
//
// A plain bundle that the client (the typed adapter of an entity) fills in and
// the front object hands, by reference, to whichever back end stands behind it.
// Every callback starts as a no-op rather than empty: the front object calls
// `mountStatusFn` and `quiescedFn` unconditionally, and an empty std::function
// would throw std::bad_function_call there.
//
//   changeFn            a row changed; gets the row as it is now
//   keyFn, keyDelFn     a row changed or went; gets its key
//   mountStatusFn       the mount status may have changed
//   quiescedFn          true after a mount, false after a detach
//   deferred...Fn       the three change callbacks, moved here once in the
//                       object's life for an asynchronous shadow
//   notifyLive          true until that move; the change callbacks above are
//                       the live ones while it holds
//
// Thread safety: none; the callbacks run on the thread that drives the back end.
#pragma once

#include <functional>

namespace Mem {

template <typename Key, typename Value>
struct Notify {
  using ValueFn = std::function<void(Value const&)>;
  using KeyFn = std::function<void(Key const&)>;

  ValueFn changeFn = [](Value const&) {};
  KeyFn keyFn = [](Key const&) {};
  KeyFn keyDelFn = [](Key const&) {};
  std::function<void()> mountStatusFn = [] {};
  std::function<void(bool)> quiescedFn = [](bool) {};
  ValueFn deferredChangeFn = [](Value const&) {};
  KeyFn deferredKeyFn = [](Key const&) {};
  KeyFn deferredKeyDelFn = [](Key const&) {};
  bool notifyLive = true;

  // Moves the three live change callbacks to their deferred places and makes
  // the live ones no-ops. Only the first call moves anything, so a repeated
  // mount does not overwrite the deferred set with no-ops. Returns whether
  // this call moved them.
  bool deferChanges() {
    if (!notifyLive) return false;
    deferredChangeFn = std::move(changeFn);
    deferredKeyFn = std::move(keyFn);
    deferredKeyDelFn = std::move(keyDelFn);
    changeFn = [](Value const&) {};
    keyFn = [](Key const&) {};
    keyDelFn = [](Key const&) {};
    notifyLive = false;
    return true;
  }
};

}  // namespace Mem
