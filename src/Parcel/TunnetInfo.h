// Parcel::TunnetInfo: how readers reach a table's writer.
//
// The writer's wake-up socket (an abstract Unix socket, printed with a leading
// '@' for its NUL byte) and the writer's per-process table id. The owner file
// records it, so a reader can connect and a would-be second writer can probe
// whether the recorded owner still listens. An empty socket name with table id
// 0 means "no writer": a detaching writer stores that.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace Parcel {

class TunnetInfo {
 public:
  TunnetInfo() = default;
  TunnetInfo(std::string socketName, uint32_t tableId)
      : socketName_(std::move(socketName)), tableId_(tableId) {}

  std::string const& socketName() const { return socketName_; }
  uint32_t tableId() const { return tableId_; }
  bool empty() const { return socketName_.empty() && tableId_ == 0; }

  friend bool operator==(TunnetInfo const&, TunnetInfo const&) = default;

 private:
  std::string socketName_;
  uint32_t tableId_ = 0;
};

}  // namespace Parcel

// Text form "<socket name>/<table id>", or "none" when empty.
template <>
struct fmt::formatter<Parcel::TunnetInfo> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Parcel::TunnetInfo const& t, Ctx& ctx) const {
    if (t.empty()) return fmt::format_to(ctx.out(), "none");
    return fmt::format_to(ctx.out(), "{}/{}", t.socketName(), t.tableId());
  }
};
