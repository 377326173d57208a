#include "environment.h"

#include <cstdlib>
#include <stdexcept>

namespace tez::test {

void setEnvironment(const std::string& name, const std::string& value) {
    if (_putenv_s(name.c_str(), value.c_str()) != 0) {
        throw std::runtime_error("cannot set " + name);
    }
}

}  // namespace tez::test
