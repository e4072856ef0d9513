// Takes the lock on the file that its argument names, says "held" or "refused" on its standard output, and keeps it
// until its standard input ends. With "-" it takes none and only waits.

#include <unistd.h>

#include <string_view>

#include "QuillmereKit/Platform/FolderLock.hpp"

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) return 2;
    const std::string_view file = arguments[1];
    const auto lock = file == "-" ? nullptr : quillmere::FolderLock::tryAcquire(file);
    const std::string_view answer = lock == nullptr ? "refused\n" : "held\n";
    if (::write(STDOUT_FILENO, answer.data(), answer.size()) < 0) return 1;
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}
