#pragma once

#include <span>

#include "core/answers.h"

namespace tez::pcscd {

/// The commands on card types, cached card data, reader icons, device types and audits, which are
/// those of the Windows interface alone.
///
/// Card types can be asked for and changed, and events audited, without a context (context 0); all
/// else needs one.
std::span<const Served> databaseCommands();

}  // namespace tez::pcscd
