#pragma once

/// Lets platformd redeem this user's sandbox extensions: hands it the runtime directory, in which
/// the key lies, at first and whenever the service has come back.
namespace qx::SandboxKeyOffer {

/// Begins to do so, for the rest of the process. Called once, in the user's daemon. Returns at
/// once.
void begin();

}  // namespace qx::SandboxKeyOffer
