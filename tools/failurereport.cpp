#include "tools/failurereport.h"

#include <tallowin/tallowin.h>

namespace tool {

Json jsonOf(ToolFailure const& failure) {
    Json error = {{"text", failure.what()}};
    if (failure.code() != KVX_OK) {
        error["code"] = codeNumber(failure.code());
        error["name"] = codeName(failure.code());
        error["meaning"] = codeMeaning(failure.code());
        error["reason"] = failure.reason();
    }
    return error;
}

}  // namespace tool
