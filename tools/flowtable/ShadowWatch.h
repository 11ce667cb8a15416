// A shadow of one table mounted as an agent mounts one, through the front
// object and its sentry, whose client hands every change it hears to a
// callback: what `flowtable watch` prints.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakMap.h"

namespace FlowtableCli {

// One change as the shadow's client heard it.
struct HeardChange {
  // The shadow's sequence when it was heard; 0 while its first sweep runs,
  // which tells the client of every row the table holds.
  uint64_t sequence = 0;
  bool removed = false;
  std::string key;  // strep
  std::string row;  // strep; empty for a removal and in a keyshadow
};

template <typename Ops>
class ShadowWatch final : public Mirak::MirakMap<Ops> {
 public:
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Heard = std::function<void(HeardChange const&)>;
  // `rowStrep` and `keyStrep` give the text forms of a row and a key.
  ShadowWatch(std::string const& name, bool keyOnly, Heard heard,
              std::function<std::string(Value const&)> rowStrep,
              std::function<std::string(Key const&)> keyStrep)
      : Mirak::MirakMap<Ops>(Ops(0)),
        heard_(std::move(heard)),
        rowStrep_(std::move(rowStrep)),
        keyStrep_(std::move(keyStrep)) {
    this->name_ = name;
    // Synchronous: each change reaches the client from the walk that takes
    // it in, so its sequence is the one the shadow is at.
    this->notify_.changeFn = [this](Value const& v) { tell(Ops::key(v), &v, false); };
    this->notify_.keyFn = [this](Key const& k) { tell(k, nullptr, false); };
    this->notify_.keyDelFn = [this](Key const& k) { tell(k, nullptr, true); };
    Mirak::MapDescriptor d(0);
    d.type = keyOnly ? Mirak::MirakType::keyshadow : Mirak::MirakType::shadow;
    d.synchronous = true;
    this->notifyingIs(true);
    this->init(d);
  }
  ~ShadowWatch() override { this->controlDetach(); }

 private:
  void tell(Key const& key, Value const* row, bool removed) {
    HeardChange c;
    // The front object's sequence is the shadow's: inside a change callback,
    // that of the queue entry being taken in (0 in the first sweep).
    c.sequence = this->sequence();
    c.removed = removed;
    c.key = keyStrep_(key);
    // A shadow's row is its copy's, looked up when the client is told of the
    // key alone; a keyshadow's would be read from the table, later than the
    // change: the watch prints the key only.
    if (!removed && this->descriptor_.type == Mirak::MirakType::shadow) {
      Value buffer;
      bool found = row != nullptr;
      if (!row) row = this->safeLookup(key, found, &buffer);
      if (found) c.row = rowStrep_(*row);
    }
    heard_(c);
  }

  Heard heard_;
  std::function<std::string(Value const&)> rowStrep_;
  std::function<std::string(Key const&)> keyStrep_;
};

}  // namespace FlowtableCli
