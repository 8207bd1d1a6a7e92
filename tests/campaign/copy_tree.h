// Copies of samples: holes, hard links and permissions stay. Below: the system.
#pragma once

#include <string>

// Copies the data of a file, holes left out, into `to`, which is made with the same size and
// permissions. A failure fails the test.
void copy_file_sparse(const std::string& from, const std::string& to);
// `to` is new. Names are made in their order, so that every copy lists them alike.
void copy_tree(const std::string& from, const std::string& to);
