#include "URLLoading/NSError.h"

namespace Foundation {

std::string NSError::description() const {
    std::string text = "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + localizedDescription + "\"";
    if (!userInfo.empty()) {
        text += " UserInfo={";
        for (std::size_t i = 0; i < userInfo.size(); ++i) {
            if (i) text += ", ";
            text += userInfo[i].first + "=" + userInfo[i].second;
        }
        text += "}";
    }
    return text;
}

}  // namespace Foundation
