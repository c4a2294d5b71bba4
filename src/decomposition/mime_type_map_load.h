// mime_type_map_load.h: loading the module's MIME type map from the
// system's type data, once, when reception starts.
#pragma once

namespace qbsmtp {

// Fills the map; it has no failure result (a missing registry key leaves
// the map empty).
void load_mime_type_map();

}  // namespace qbsmtp
