// ZebMirak::ZebMirakMapValueWrapper: a flow record as the value of a table.
//
// The table family reaches the key of a value through one operation,
// `fwkKey()`; records name their key `key()`. The wrapper derives from the
// record and adds `fwkKey()` and nothing else: no field, no virtual. So the
// bytes of a wrapped value are the bytes of the record, the value size in a
// table's header is the record's size, and the type name stored there is the
// record's (ValueTypeName follows `Record`).
//
// Template arguments: the record, its key type, the record's key accessor (a
// member function such as &Record::key, or a data member), and whether the
// value is held by reference. Only by-value wrappers exist: a reference (an
// entity pointer) cannot lie in a mapped file, so `true` does not compile.
//
// A wrapper is built from a record (implicitly, so a record can be written
// where a value is wanted) and converts back to its record by slicing or by
// `record()`.
#pragma once

#include <functional>
#include <type_traits>

namespace ZebMirak {

template <typename R, typename K, auto KeyAccess, bool ByReference>
class ZebMirakMapValueWrapper : public R {
  static_assert(!ByReference,
                "a table value lives in mapped files: only the by-value wrapper (false) exists");

 public:
  using Record = R;
  using Key = K;

  ZebMirakMapValueWrapper() = default;
  ZebMirakMapValueWrapper(Record const& r) : Record(r) {}  // NOLINT: implicit by design
  using Record::Record;

  // The table reaches every key through here, so the layout promise of the
  // wrapper is checked in each instance that a table uses.
  decltype(auto) fwkKey() const {
    static_assert(sizeof(ZebMirakMapValueWrapper) == sizeof(Record),
                  "the value wrapper must add no bytes");
    static_assert(std::is_trivially_copyable_v<ZebMirakMapValueWrapper> ==
                      std::is_trivially_copyable_v<Record>,
                  "the value wrapper must keep the record trivially copyable");
    return std::invoke(KeyAccess, static_cast<Record const&>(*this));
  }

  Record const& record() const { return *this; }
  Record& record() { return *this; }
};

}  // namespace ZebMirak
