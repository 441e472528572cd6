// The panel's page, script and style, compiled into tavrosim (EmbedPanel.cmake writes the table
// from the files in sim/panel/).
#pragma once

#include <cstddef>
#include <string_view>

namespace sim {

struct PanelFile {
  const char* path;  // as requested, e.g. "/panel.js"
  const char* mime;
  const unsigned char* data;
  std::size_t size;
};

// The file served at `path`, or null.
const PanelFile* FindPanelFile(std::string_view path);

}  // namespace sim
