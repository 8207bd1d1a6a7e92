// Files and directories on the disk, and the sample's two configuration files.
// Below: image.h, bytes.h. Failures are printed on standard error where they occur.
#pragma once

#include <string>

#include "lab/image.h"
#include "lab/progress.h"

namespace lab {

// Makes the directory if necessary and returns its absolute path. Returns "" if it cannot be used
// for a sample, and prints the reason.
std::string prepare_directory(const std::string& directory);
// Writes all files of the sample in the model's current state, sparse where they are zero.
bool write_sample(const model& m, const std::string& directory, progress* bar);
// Reads the parameters that the sample in the directory was made with.
bool read_parameters(const std::string& directory, parameters* out);

// Replaces the contents of an existing file by the image.
bool replace_file(const std::string& directory, const file_image& image);

// Creates a file outside the sample: the image's path is no path below its directory. If a write
// fails, part of the file is left.
bool create_elsewhere(const file_image& image);

// Create a file that does not exist, whole or not at all: with its directories, or as a text.
bool create_file(const std::string& directory, const file_image& image);
bool create_text(const std::string& directory, const std::string& path, const std::string& text);

// These print, and always return false.
bool complain_of(const std::string& path, const char* what);
bool complain_of_errno(const std::string& path);

}  // namespace lab
