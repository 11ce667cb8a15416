// Nimbet::IntfId: names, text form and hash of interface ids.
#include "Nimbet/IntfId.h"

#include <ostream>
#include <string_view>

#include "Zeb/Hash.h"

namespace Nimbet {

namespace {

struct KindName {
  IntfKind kind;
  std::string_view name;
};

// No name is a prefix of another, so the first match is the only one.
constexpr KindName kKindNames[] = {
    {IntfKind::ethernet, "Ethernet"},
    {IntfKind::portChannel, "Port-Channel"},
    {IntfKind::vlan, "Vlan"},
    {IntfKind::loopback, "Loopback"},
    {IntfKind::management, "Management"},
    {IntfKind::tunnel, "Tunnel"},
};

constexpr std::string_view kNone = "intfNone";
constexpr std::string_view kRaw = "intf:0x";

char const* const kWhat = "an interface (\"intfNone\", \"Ethernet1\", \"intf:0x...:0x...\")";

}  // namespace

IntfId::IntfId(IntfKind kind, uint32_t number, uint32_t sub) : id_(kNoId), sub_(0) {
  if (number > kMaxNumber) {
    throw Zeb::RangeException("interface number {} does not fit in 24 bits", number);
  }
  id_ = (static_cast<uint32_t>(kind) << 24) | number;
  sub_ = sub;
}

IntfId::IntfId(Zeb::String const& name) : IntfId() {
  if (name.empty()) throw Zeb::RangeException("empty interface name");
  handleInitialized(name);
}

void IntfId::handleInitialized(Zeb::String const& name) {
  if (name.empty()) return;
  try {
    *this = Zeb::strepToValue(name, static_cast<IntfId*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    throw Zeb::RangeException("'{}' is no interface name: {}", name.stdString(), e.msg());
  }
}

uint32_t IntfId::hash() const {
  Zeb::Hash h(0);
  h.hashMix<4>(&id_);
  h.hashMix<4>(&sub_);
  return h.result();
}

Zeb::String IntfId::str() const {
  if (isNone()) return Zeb::String(kNone);
  auto const kind = static_cast<IntfKind>(id_ >> 24);
  for (auto const& k : kKindNames) {
    if (k.kind != kind) continue;
    if (sub_ == 0) return Zeb::String(fmt::format("{}{}", k.name, id_ & kMaxNumber));
    return Zeb::String(fmt::format("{}{}.{}", k.name, id_ & kMaxNumber, sub_));
  }
  return Zeb::String(fmt::format("intf:{:#010x}:{:#010x}", id_, sub_));
}

std::ostream& operator<<(std::ostream& os, IntfId const& v) {
  return os << v.str();
}

Zeb::String valueToStrep(IntfId const& v) {
  return v.str();
}

IntfId sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IntfId*) {
  Zeb::StrepIt const start = it;
  std::string_view const rest = it.rest(end);
  try {
    if (rest.starts_with(kNone)) {
      it += static_cast<std::ptrdiff_t>(kNone.size());
      return IntfId(IntfId::kNoId, 0);
    }
    if (rest.starts_with(kRaw)) {
      it += static_cast<std::ptrdiff_t>(kRaw.size());
      auto const id = static_cast<uint32_t>(Zeb::parseHex(it, end, 8, "8 hex digits"));
      Zeb::needString(it, end, ":0x");
      auto const sub = static_cast<uint32_t>(Zeb::parseHex(it, end, 8, "8 hex digits"));
      return IntfId(id, sub);
    }
    for (auto const& k : kKindNames) {
      if (!rest.starts_with(k.name)) continue;
      it += static_cast<std::ptrdiff_t>(k.name.size());
      auto const number = static_cast<uint32_t>(
          Zeb::parseUnsigned(it, end, IntfId::kMaxNumber, "an interface number"));
      uint32_t sub = 0;
      if (it != end && *it == '.') {
        ++it;
        sub = static_cast<uint32_t>(
            Zeb::parseUnsigned(it, end, 0xffffffffu, "a sub-interface number"));
        // ".0" would print as nothing: one text per value.
        if (sub == 0) throw Zeb::RangeException("sub-interface number 0 is written without \".0\"");
      }
      return IntfId(k.kind, number, sub);
    }
  } catch (Zeb::RangeException const&) {
    it = start;
    throw;
  }
  Zeb::throwExpected(it, end, kWhat);
}

}  // namespace Nimbet

template <>
Nimbet::IntfId Zeb::deserializeAttr<Nimbet::IntfId>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                    char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::IntfId*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
