// The built programs on the machine as it is, for samples of tarn-lab, which bring a platform of
// their own: quicker than a sandbox, and without a look at the log. Below: nothing.
#pragma once

#include <string>

struct ran {
    int status;        // exit status; -1 when it did not exit
    std::string text;  // standard output and standard error
};

ran shell(const std::string& command);   // a command line
ran tarn_lab(const std::string& words);  // behind "tarn-lab"
// The tool on the platform of the sample in that directory.
ran tarn_on(const std::string& sample, const std::string& words);
