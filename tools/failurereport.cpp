#include "tools/failurereport.h"

#include <tallowin/tallowin.h>

#include "tools/toolobjects.h"

namespace tool {

std::string reasonOf(ToolFailure const& failure) {
    std::string reason;
    if (failure.code() == KVX_OK || readText(KVX_GetLastErrorText, reason) != KVX_OK) {
        return "";
    }
    return reason;
}

Json jsonOf(ToolFailure const& failure) {
    Json error = {{"text", failure.what()}};
    if (failure.code() != KVX_OK) {
        error["code"] = codeNumber(failure.code());
        error["name"] = codeName(failure.code());
        error["meaning"] = codeMeaning(failure.code());
        error["reason"] = reasonOf(failure);
    }
    return error;
}

}  // namespace tool
