#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/identity/AuditToken.h"

namespace qx {

enum class SandboxFilter : unsigned { path = 1 };
/// Suppresses the sandbox's violation report.
inline constexpr unsigned sandboxCheckNoReport = 0x40000000;

/// The platform's file extension classes.
inline constexpr std::string_view sandboxExtensionReadWrite = "com.veltro.sandbox.read-write";
inline constexpr std::string_view sandboxExtensionRead = "com.veltro.sandbox.read";

inline constexpr std::string_view sandboxServiceName = "com.veltro.Sandbox";

/// Checks a token against the key of this boot and opens what it names (openat2(2) without
/// following a symbolic link anywhere in the path): read-write or read-only as the token's class
/// says, regular files only, never blocking. A forged, altered or stale token, or one for a file
/// that is gone or was replaced by a link, gives an error. For the process that redeems.
Result<FileDescriptor> consumeSandboxExtension(std::string_view token);

}  // namespace qx

/// Whether the process behind the token may perform `operation` ("file-read-data" or
/// "file-write-data") on `path`: 0 when allowed, else an errno. Answered from the process's own
/// point of view: the path is resolved inside its mount namespace without leaving it, must reach
/// the same file as outside, on a mount that is not read-only for a write, and the permissions of
/// the file and of the directories on the way must let the process's user, groups and capabilities
/// do it. Nothing is allowed to the token of nobody or of a process that is gone. Any thread; may
/// block on the file system.
int SandboxCheckByAuditToken(const qx::AuditToken& token, std::string_view operation,
                             qx::SandboxFilter filter, unsigned flags, const std::string& path);

/// A printable token of at most 4096 characters that lets whoever redeems it open the file at
/// `path` as `extensionClass` says; absent for a file that does not exist. Authenticated with the
/// key of this boot, which is made when it is absent.
std::optional<std::string> SandboxIssueFileExtension(std::string_view extensionClass,
                                                     const std::string& path, unsigned flags);
