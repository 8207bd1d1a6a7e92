// A private mount namespace for the calling process, which cannot affect the host's mounts.
// Below: the system. Above: private_root.h.
#pragma once

#include <string>

// The text "WHAT: REASON", with the reason from errno.
std::string failed(const std::string& what);

// Leaves the host's mount namespace and makes every mount private. Needs root or user namespaces;
// the root need not be a mount point. `below_root`: any directory but the root itself. Returns "",
// or what failed, with the reason.
std::string leave_mount_namespace(const std::string& below_root);
