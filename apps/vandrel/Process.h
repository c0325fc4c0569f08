#pragma once
// Running helper programs (Graphviz `dot`, gnuplot) without a shell: no quoting of file
// names, no shell to find, and their chatter kept away from the user's terminal.
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct ProcessResult {
    bool started = false;  // false: the program could not be run (see `output`)
    int exitStatus = -1;   // exit status; -1 when it ended by a signal
    std::string output;    // what it wrote to standard output and error, interleaved
};

// Runs argv[0], looked up on PATH, with `input` as its standard input, and waits for it.
// Its standard output and error are collected, never shown. When it cannot be started,
// `started` is false and `output` says why.
ProcessResult runProcess(const std::vector<std::string>& argv, std::string_view input);

// A helper's output fit for a message: its text without control bytes that a terminal
// would act on (an image written to standard output after an error), trailing line
// breaks and anything past the first 2000 characters.
std::string outputExcerpt(std::string_view output);

}  // namespace host
