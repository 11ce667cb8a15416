// Mirak::TableFullException: an insert into a full fixed-size table.
#pragma once

#include "Lomi/Exception.h"

namespace Mirak {

class TableFullException : public Lomi::Exception {
 public:
  using Lomi::Exception::Exception;
};

}  // namespace Mirak
