#pragma once

#include <functional>

namespace docsource {

/// Makes a system call that the permissions of a file may deny its owner, as the one that opens a
/// read-only document in order to fill it. Nobody sees other permissions meanwhile: a process for
/// the one call has all power over its user's files, in a user namespace of its own
/// (user_namespaces(7)). Where no such namespace is to be had, the owner is given the permissions
/// for that moment; those that a program gives the file then stay. platformd takes the other
/// process for this one.
///
/// `call` returns -1 with errno set, or something else. It makes nothing but that call: the other
/// process shares this one's memory and descriptors (clone(2), CLONE_VM and CLONE_FILES). `file`
/// may be open in any way. Any thread may call it.
int asOwner(int file, const std::function<int()>& call);

}  // namespace docsource
