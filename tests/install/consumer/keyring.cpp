#include <orbiq/orbiq.h>
#include <orbiq/secretservice/SecretServiceKeychain.h>

/// Ends well where there is no keyring to be asked, as on a build machine: the identifier is null.
int main() {
  const auto problem = orbiq::HostApplication::describe({
      .bundleIdentifier = "tv.example.player",
      .bundleName = "Player",
      .shortVersion = "4.2",
      .authorizationServer = "https://auth.example/tag/",
      .keychain = orbiq::makeSecretServiceKeychain(),
  });
  return problem.isNull() && orbiqKWDXUUIDHandler::UUID().isNull() ? 0 : 1;
}
