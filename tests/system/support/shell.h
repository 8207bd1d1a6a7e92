// The built programs outside the sandbox, for samples of tarn-lab, which have their own platform
// configuration: faster than a sandbox, but the log is not read. Below: nothing.
#pragma once

#include <string>

struct ran {
    int status;        // exit status; -1 when it did not exit
    std::string text;  // standard output and standard error
};

ran shell(const std::string& command);   // a command line
ran tarn_lab(const std::string& words);  // the arguments of tarn-lab
// The tool on the platform of the sample in that directory.
ran tarn_on(const std::string& sample, const std::string& words);
