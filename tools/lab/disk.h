// Files and directories on the disk, and the sample's two configuration files.
// Below: image.h, bytes.h. Failures are told on standard error where they are found.
#pragma once

#include <string>

#include "lab/image.h"
#include "lab/progress.h"

namespace lab {

// The directory as an absolute path; empty, told, when it cannot be had or no sample fits there.
std::string prepare_directory(const std::string& directory);
// All files of the sample as the model stands, sparse where they are zero.
bool write_sample(const model& m, const std::string& directory, progress* bar);
// What the sample in the directory was made of.
bool read_parameters(const std::string& directory, parameters* out);

// The file, which stands there, holds the image and nothing else.
bool replace_file(const std::string& directory, const file_image& image);

bool complain_of(const std::string& path, const char* what);  // false

}  // namespace lab
