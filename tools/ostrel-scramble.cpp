// Turns a shared secret into the stored form the plug-in reads, and back.
//
//   ostrel-scramble [SECRET]       prints the stored form of SECRET (or of stdin's first line)
//   ostrel-scramble -d [STORED]    prints the plain form of a stored one
//
// Text is UTF-8. Exit status: 0 done, 1 malformed input, 2 wrong usage.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "foundation/SString.h"
#include "foundation/Scrambler.h"

using Tarvik500::SAnsiString;
using Tarvik500::SScrambler;
using Tarvik500::SWCharString;

namespace {

int Usage() {
    std::cerr << "usage: ostrel-scramble [SECRET]\n"
                 "       ostrel-scramble -d [STORED]\n"
                 "Without an argument the text is read from the first line of standard input.\n"
                 "Passing a secret on the command line leaves it in the shell's history.\n";
    return 2;
}

bool ReadFirstLine(std::string& o_line) {
    if (!std::getline(std::cin, o_line)) {
        return false;
    }
    while (!o_line.empty() && (o_line.back() == '\r' || o_line.back() == '\n')) {
        o_line.pop_back();
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool bDecode = false;
    int nArg = 1;
    if (nArg < argc && std::strcmp(argv[nArg], "-d") == 0) {
        bDecode = true;
        ++nArg;
    } else if (nArg < argc && (std::strcmp(argv[nArg], "-h") == 0 || std::strcmp(argv[nArg], "--help") == 0)) {
        Usage();
        return 0;
    }
    if (argc - nArg > 1) {
        return Usage();
    }

    std::string input;
    if (nArg < argc) {
        input = argv[nArg];
    } else if (!ReadFirstLine(input)) {
        std::cerr << "ostrel-scramble: nothing to read on standard input\n";
        return 1;
    }

    SWCharString wideInput;
    if (!wideInput.copyFrom(input.c_str())) {
        std::cerr << "ostrel-scramble: the input is not valid UTF-8\n";
        return 1;
    }

    SWCharString output;
    if (bDecode) {
        if (!SScrambler::DecryptPasswordDB(wideInput, output)) {
            std::cerr << "ostrel-scramble: not a well-formed stored secret\n";
            return 1;
        }
    } else if (!SScrambler::EncryptPasswordDB(wideInput, output)) {
        std::cerr << "ostrel-scramble: the secret cannot be stored\n";
        return 1;
    }
    std::cout << Tarvik500::ToAnsiString(output.c_str()).c_str() << '\n';
    return std::cout.good() ? 0 : 1;
}
