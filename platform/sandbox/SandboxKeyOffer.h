#pragma once

/// Lets platformd redeem this user's sandbox extensions: hands it the runtime directory, in which
/// the key lies, and again whenever the service has come back.
namespace qx::SandboxKeyOffer {

/// Begins to, for the rest of the process. Once, in the daemon of the user. Returns at once.
void begin();

}  // namespace qx::SandboxKeyOffer
