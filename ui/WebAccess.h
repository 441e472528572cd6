// What the web server lets in, apart from the sockets: the run's token and its check, the paths a
// request may name, the Host and Origin headers it accepts, the HTML files with the token put in
// what they load, and a download's file name. Plain functions of strings, so that the checks are
// tested without a server (and without Beast, which costs seconds per translation unit).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ui {

// 64 hex digits from the system's random source, new for every run.
std::string RandomToken();

// The request target's `token` parameter equals `token`, compared in constant time.
bool TokenMatches(std::string_view target, std::string_view token);

// The decoded path of a request target, or nullopt when it tries to leave the served tree or
// is not a plain path: no "." or ".." segments, no empty segments, no backslashes or NULs. "/" is
// "/shell.html".
std::optional<std::string> SafePath(std::string_view target);

// The Host header names this server: 127.0.0.1:<port> or localhost:<port>.
bool HostAllowed(std::string_view host, std::uint16_t port);
// The Origin header is one of this server's pages: http://127.0.0.1:<port> or
// http://localhost:<port>.
bool OriginAllowed(std::string_view origin, std::uint16_t port);

// `html` with `token=<token>` added to the query of every relative href="..." and src="...", so
// that what a served page loads carries the token as the page's own URL does. Only the
// program's own files come here; an attribute is a name after a space or a line break.
std::string WithToken(std::string_view html, const std::string& token);

// Only letters, digits, '.', '_' and '-' in a download's file name (others become '_'), at most
// 128 of them: it goes into a header.
std::string SafeFileName(std::string_view name);

}  // namespace ui
