// Files the web server hands out, compiled into the program (see ui/Embed.cmake): the shell's
// page, script and style sheets, and the page documents. A table maps each URL path to its bytes.
#pragma once

#include <cstddef>
#include <string_view>

namespace ui {

struct Resource {
  const char* path;  // URL path, e.g. "/shell.js", "/pages/board_information.html"
  const char* mime;
  const unsigned char* data;
  std::size_t size;
};

struct ResourceTable {
  const Resource* items;
  std::size_t count;

  // Exact match only: a path that is not in the table is not served.
  const Resource* Find(std::string_view path) const {
    for (std::size_t i = 0; i < count; ++i) {
      if (path == items[i].path) return &items[i];
    }
    return nullptr;
  }
};

// The shell and the program's page documents (resources/).
const ResourceTable& ShellResources();

}  // namespace ui
