// The root directory that a program in the sandbox sees, made in a private mount namespace of the
// calling process. Below: mounts.h. Above: sandbox.h.
#pragma once

#include <functional>
#include <string>
#include <vector>

// `outside` is bound to `inside` (both absolute; a directory or a file).
struct bound_path {
    std::string outside;
    std::string inside;
    bool read_only;
};

// Leaves the host's mount namespace and makes a tmpfs at the empty directory `mount_point` this
// process's root: the system's own directories, a small /dev, an empty /tmp, and `bindings`, in
// their order. Needs root or user namespaces. Returns "", or what failed, with the reason.
std::string enter_private_root(const std::string& mount_point,
                               const std::vector<bound_path>& bindings);

// Calls it in a child, which then ends. Returns its result, at most 1024 bytes.
std::string in_a_process_of_its_own(const std::function<std::string()>& what);

// "", or the reason why the calling user cannot make one on this machine; tried in a child.
std::string why_no_private_root();
