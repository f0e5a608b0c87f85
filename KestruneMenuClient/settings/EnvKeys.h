#pragma once

// The keys of the backend's .env that the client reads and writes. A legacy key is read when the current one
// is absent, and never written.

namespace kestrune::env {

inline constexpr auto publicAPIURL = "KESTRUNE_PUBLIC_API_URL";
inline constexpr auto appAPIToken = "KESTRUNE_APP_API_TOKEN";
inline constexpr auto legacyAppAPIToken = "HALVASK_APP_API_TOKEN";
inline constexpr auto macServiceToken = "KESTRUNE_MAC_SERVICE_TOKEN";
inline constexpr auto legacyMacServiceToken = "HALVASK_MAC_SERVICE_TOKEN";
inline constexpr auto projectRoot = "KESTRUNE_PROJECT_ROOT";
inline constexpr auto legacyProjectRoot = "HALVASK_PROJECT_ROOT";
inline constexpr auto openAIAPIKey = "OPENAI_API_KEY";

/// The relay's address until the user has set one.
inline constexpr auto placeholderPublicAPIURL = "https://relay.example.com";

}  // namespace kestrune::env
