#include "qn/Exception.h"

#include <utility>

namespace qn {

InternalInconsistencyException::InternalInconsistencyException(std::string reason)
    : std::logic_error(reason), reason_(std::make_shared<const std::string>(std::move(reason))) {}

}  // namespace qn
