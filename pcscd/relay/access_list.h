#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace tez::relay {

/// Who may open the pipe: the user that runs the relay, and others by name. Nobody else of this
/// machine, administrators included, who can of course take what they want.
class AccessList {
  public:
    /// `users`: names of users or groups in UTF-8, as Windows takes them (`NAME`, `DOMAIN\NAME`).
    /// Throws std::runtime_error for one that Windows does not know.
    explicit AccessList(const std::vector<std::string>& users);

    /// For the creation of a pipe. Points into this object.
    SECURITY_ATTRIBUTES* attributes() { return &attributes_; }

    /// In Windows' own notation (SDDL).
    const std::string& text() const { return text_; }

  private:
    struct FreeLocal {
        void operator()(void* memory) const { LocalFree(memory); }
    };

    std::string text_;
    std::unique_ptr<void, FreeLocal> descriptor_;
    SECURITY_ATTRIBUTES attributes_ = {};
};

}  // namespace tez::relay
