// Zeb::String: an immutable, reference-counted string.
//
// Copies share one buffer; nothing changes a buffer once it is built, so a
// String can be handed across notifiees and stored in messages freely.
// `IteratorConst` walks its bytes for the text parsers; it holds a reference
// to the string, so the text stays alive while a parser reads it.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Zeb {

class String {
 public:
  class IteratorConst {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = char const*;
    using reference = char const&;

    IteratorConst() = default;
    char const& operator*() const { return (*buf_)[pos_]; }
    IteratorConst& operator++() {
      ++pos_;
      return *this;
    }
    IteratorConst operator++(int) {
      IteratorConst old = *this;
      ++pos_;
      return old;
    }
    IteratorConst& operator+=(std::ptrdiff_t n) {
      pos_ += n;
      return *this;
    }
    bool operator==(IteratorConst const& o) const { return pos_ == o.pos_; }
    bool operator!=(IteratorConst const& o) const { return pos_ != o.pos_; }
    std::ptrdiff_t operator-(IteratorConst const& o) const {
      return static_cast<std::ptrdiff_t>(pos_) - static_cast<std::ptrdiff_t>(o.pos_);
    }
    // Offset of this position from the start of the string.
    size_t position() const { return pos_; }
    // The text from here up to `end`, for messages of parsers.
    std::string_view rest(IteratorConst const& end) const {
      return std::string_view(*buf_).substr(pos_, end.pos_ - pos_);
    }

   private:
    friend class String;
    IteratorConst(std::shared_ptr<std::string const> buf, size_t pos)
        : buf_(std::move(buf)), pos_(pos) {}
    std::shared_ptr<std::string const> buf_;
    size_t pos_ = 0;
  };

  String() : buf_(emptyBuffer()) {}
  String(char const* s) : buf_(std::make_shared<std::string const>(s)) {}
  String(std::string s) : buf_(std::make_shared<std::string const>(std::move(s))) {}
  String(std::string_view s) : buf_(std::make_shared<std::string const>(s)) {}

  std::string const& stdString() const { return *buf_; }
  char const* c_str() const { return buf_->c_str(); }
  size_t size() const { return buf_->size(); }
  bool empty() const { return buf_->empty(); }
  operator std::string_view() const { return *buf_; }

  IteratorConst begin() const { return IteratorConst(buf_, 0); }
  IteratorConst end() const { return IteratorConst(buf_, buf_->size()); }

  friend bool operator==(String const& a, String const& b) { return *a.buf_ == *b.buf_; }
  friend bool operator<(String const& a, String const& b) { return *a.buf_ < *b.buf_; }
  friend std::ostream& operator<<(std::ostream& os, String const& s) { return os << *s.buf_; }

 private:
  static std::shared_ptr<std::string const> const& emptyBuffer() {
    static std::shared_ptr<std::string const> const e = std::make_shared<std::string const>();
    return e;
  }
  std::shared_ptr<std::string const> buf_;
};

}  // namespace Zeb

template <>
struct fmt::formatter<Zeb::String> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Zeb::String const& s, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(s), ctx);
  }
};
