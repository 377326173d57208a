#pragma once

#include <string>
#include <string_view>

namespace tez {

/// Calls visit(name) for each name of a multi-string (NUL-terminated names, closed by one more
/// NUL), in order. The view bounds the walk: names that lack their closing NULs end with the view,
/// so bytes of a broken sender are never read past what it sent. Each name that is passed on is
/// followed by a NUL only if the sender wrote one.
template <class Visit>
void forEachName(std::string_view multiString, Visit visit) {
    while (!multiString.empty()) {
        const std::string_view name = multiString.substr(0, multiString.find('\0'));
        if (name.empty()) {
            return;
        }
        visit(name);
        multiString.remove_prefix(name.size());
        if (!multiString.empty()) {
            multiString.remove_prefix(1);
        }
    }
}

/// Makes a multi-string well-formed, so that whoever walks it sees every name and stays inside:
/// appends the closing NULs that it lacks and drops what stands behind its end. A well-formed one
/// stays as it is; an empty text becomes the empty list, a single NUL.
inline void closeMultiString(std::string& multiString) {
    std::size_t end = 0;
    forEachName(multiString, [&end](std::string_view name) { end += name.size() + 1; });
    multiString.resize(end);  // gives a last name the NUL that it may lack
    multiString.push_back('\0');
}

}  // namespace tez
