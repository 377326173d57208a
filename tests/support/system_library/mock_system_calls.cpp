#include "system_library/mock_system_calls.h"

namespace tez::test {

MockSystemCalls::MockSystemCalls() {
// NOLINTBEGIN(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_DELEGATE_CALL(Result, name, parameters, arguments)       \
    ON_CALL(*this, name).WillByDefault([this] parameters -> Result { \
        return service_.name arguments;                              \
    });
    TEZ_FOR_EACH_SYSTEM_CALL(TEZ_DELEGATE_CALL)
#undef TEZ_DELEGATE_CALL
    // NOLINTEND(bugprone-macro-parentheses)
}

MockSystemCalls::~MockSystemCalls() = default;

}  // namespace tez::test
