#pragma once
// Property lists of a SoundSource mixer, written by us from its documented keys, in either form.

#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tonavi::test {

using Plist = plist_t; // owned by the tree it is put into

inline Plist dict(std::vector<std::pair<std::string, Plist>> items) {
    Plist d = plist_new_dict();
    for (auto& [key, value] : items)
        plist_dict_set_item(d, key.c_str(), value);
    return d;
}
inline Plist array(std::vector<Plist> items) {
    Plist a = plist_new_array();
    for (Plist item : items)
        plist_array_append_item(a, item);
    return a;
}
inline Plist str(const std::string& text) { return plist_new_string(text.c_str()); }
inline Plist real(double value) { return plist_new_real(value); }
inline Plist flag(bool value) { return plist_new_bool(value); }

inline Plist effect(const std::string& markup, const std::string& name, Plist properties, bool enabled = true) {
    return dict({{"effectInfoKey", str(markup)}, {"name", str(name)}, {"enabled", flag(enabled)},
                 {"nodeProperties", properties}});
}
inline Plist plugin(const std::string& name, double type, const std::string& uid = "") {
    return effect("TCAudioUnitModelMarkup", name,
                  dict({{"audioUnitSettings", dict({{"type", real(type)}, {"subtype", plist_new_uint(2)},
                                                    {"manufacturer", plist_new_uint(3)},
                                                    {"audioUnitUid", str(uid)}})}}));
}
inline Plist appSource(const std::string& bundleID, const std::string& name, std::vector<std::pair<std::string, Plist>> more,
                       std::vector<Plist> effects = {}) {
    more.emplace_back("infoKey", str("AppSource"));
    more.emplace_back("applicationRef", dict({{"bundleid", str(bundleID)}}));
    more.emplace_back("sourceName", str(name));
    more.emplace_back("effects", array(std::move(effects)));
    return dict(std::move(more));
}

// Serialises and frees the tree.
inline std::vector<std::uint8_t> bytes(Plist root, bool binary) {
    char* out = nullptr;
    std::uint32_t length = 0;
    binary ? plist_to_bin(root, &out, &length) : plist_to_xml(root, &out, &length);
    std::vector<std::uint8_t> result(out, out + length);
    binary ? plist_to_bin_free(out) : plist_to_xml_free(out);
    plist_free(root);
    return result;
}

} // namespace tonavi::test
