// A directory tree with all that a reader could have changed. Below: tree.h.
#pragma once

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>

#include "system/support/tree.h"

// Every name with the status of its file, times included, and its bytes.
inline std::map<std::string, std::string> everything(const std::string& root) {
    std::map<std::string, std::string> all = tree_of(root);
    for (auto& [name, text] : all) {
        struct stat64 status = {};
        EXPECT_EQ(lstat64((root + "/" + name).c_str(), &status), 0);
        for (const timespec& time : {status.st_mtim, status.st_ctim}) {
            text += " " + std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
        }
    }
    return all;
}
