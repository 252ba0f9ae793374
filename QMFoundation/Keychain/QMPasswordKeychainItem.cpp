#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include "Platform/Foundation/Unicode.h"

std::optional<std::string> QMPasswordKeychainItem::password() const
{
    const auto value = objectForKey("v_Data");
    const auto* data = value.data();
    if (data == nullptr) {
        return std::nullopt;
    }
    std::string text(data->begin(), data->end());
    if (!platform::isValidUTF8(text)) {
        return std::nullopt;
    }
    return text;
}
