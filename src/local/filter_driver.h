#pragma once

namespace tez {

/// Whether the redirection filter driver tezwscrd.sys is loaded, compared without regard to ASCII
/// letter case. When the loaded drivers cannot be listed, or the system hides which ones they are,
/// a warning is logged and it counts as absent.
bool IsFilterDriverPresent();

}  // namespace tez
