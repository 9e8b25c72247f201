#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "platform/identity/AuditToken.h"

namespace qx {

class SandboxKeyStore;

enum class SandboxFilter : unsigned { path = 1 };
/// Suppresses the sandbox's violation report.
inline constexpr unsigned sandboxCheckNoReport = 0x40000000;

/// The platform's file extension classes.
inline constexpr std::string_view sandboxExtensionReadWrite = "com.veltro.sandbox.read-write";
inline constexpr std::string_view sandboxExtensionRead = "com.veltro.sandbox.read";

inline constexpr std::string_view sandboxServiceName = "com.veltro.Sandbox";

/// Checks a token against the user's key of this boot and opens what it names (openat2(2) without
/// following a symbolic link anywhere in the path), with the identity of the calling thread:
/// read-write or read-only as the token's class says, regular files only, never blocking. A token
/// that is forged, altered, stale or taken back gives EBADMSG; one for a file that is gone or was
/// replaced by a link gives a file error. For the process that redeems.
Result<FileDescriptor> consumeSandboxExtension(std::string_view token,
                                               const SandboxKeyStore& store);
/// Does the same with the key of the user of this process's places.
Result<FileDescriptor> consumeSandboxExtension(std::string_view token);

}  // namespace qx

/// Whether the process behind the token may perform `operation` ("file-read-data",
/// "file-write-data", or "file-read-metadata" for what takes no permission of the file's own) on
/// `path`: 0 when allowed, otherwise an errno. The answer is from the process's own point of view:
/// the path is resolved inside its mount namespace without leaving it, must reach the same file as
/// outside, on a mount that is not read-only for a write, and the permissions of the file and of
/// the directories on the way must let the process's user, groups and capabilities do it. Nothing
/// is allowed to the token of nobody, of a process that is gone, or of one that has become another
/// user or group since. Any thread may call it; it may block on the file system.
int SandboxCheckByAuditToken(const qx::AuditToken& token, std::string_view operation,
                             qx::SandboxFilter filter, unsigned flags, const std::string& path);

/// Makes a printable token of at most 4096 characters. Whoever redeems it opens the file at `path`
/// as `extensionClass` says. Absent for what is not a regular file that is reached without a link,
/// once the links of its directory are resolved. The token is authenticated with the key of this
/// boot, which is made when it is absent. Any thread may call it; it blocks on the file system.
std::optional<std::string> SandboxIssueFileExtension(std::string_view extensionClass,
                                                     const std::string& path, unsigned flags);

/// Takes back every token for the document that was issued up to now. When this has returned
/// without an error, none of them redeems, for anybody, whatever other path of the same file it
/// names. The document need not exist any more. A token that is issued afterwards is good again, so
/// whoever decides about a token has to decide again once it is issued. This lasts as long as the
/// boot (the file "sandbox.taken-back" in the runtime directory). Only one process of each user
/// calls it, the one that issues; on any thread. It blocks on the disk.
std::optional<qx::Error> SandboxTakeBackFileExtensions(const std::string& path);

/// Does the same for every token, of whatever document: for a document of which nobody can say
/// where it is.
std::optional<qx::Error> SandboxTakeBackAllFileExtensions();
