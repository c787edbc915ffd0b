#pragma once
// Which apps fill the mixer the first time they are seen: browsers, chat assistants and music
// tools, recognised by bundle ID fragments or by their display name.

#include <string_view>

namespace tonavi::DefaultMixerAppPolicy {

bool includes(std::string_view bundleID, std::string_view name);

} // namespace tonavi::DefaultMixerAppPolicy
