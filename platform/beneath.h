// Opening and removing below a destination folder without following anything. The destination
// itself is resolved once (it may be a link the factory image made); every name below it is taken
// as it is on disk: a link met there is never followed and never recursed into, so neither a
// server's archive nor another process sharing the folder can steer a write or a delete out of it.
#pragma once

#include <string>
#include <vector>

#include "descriptor.h"

// The components of a relative path, without empty and "." ones ("a//./b" gives a, b).
std::vector<std::string> pathComponents(const std::string& relative);

// Opens the directory `relative` ("a/b", no leading '/', no "..") below `rootFd`, each component
// opened without following links. With `create`, missing components are made (mode 0755). Returns
// an invalid descriptor (errno set; ELOOP or ENOTDIR for a link on the way) when it cannot.
UniqueFd openDirectoryBeneath(int rootFd, const std::string& relative, bool create);

// Removes `name` in the directory `parentFd`: a file or a link is unlinked itself, a directory is
// emptied and removed without following any link inside it. Nesting depth costs no descriptors, so
// a path thousands of levels deep is removed like a flat one. 0 on success, -1 (logged) otherwise.
int removeTreeAt(int parentFd, const std::string& name);

// Removes every entry of the directory open at `dirFd`, as removeTreeAt does; -1 when one stayed.
int removeContentsAt(int dirFd);

// removeTreeAt for a path of the host's file system: the parent is resolved, the last component
// is not followed.
int removeHostTree(const std::string& hostPath);
