#pragma once
// Files the host creates. Paths that come from a scheme file or from a shared directory
// are never followed through symbolic links or guessed: scratch files are made with
// mkstemp, and output files are opened with O_NOFOLLOW.
#include <cstdio>
#include <string>

namespace host {

// Creates or truncates `file` for writing, refusing a symbolic link. Throws
// std::runtime_error "Refusing to write <file>: it is a symbolic link" or "Cannot write ...".
std::FILE* openForWriting(const std::string& file);

// A new empty file `<dir>/<stem>XXXXXX<suffix>` that no one else can have made; its path.
std::string makeScratchFile(const std::string& dir, const std::string& stem, const std::string& suffix);

// The directory for scratch files (TMPDIR or /tmp).
std::string scratchDirectory();

}  // namespace host
