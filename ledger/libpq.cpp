#include "ledger/libpq.h"

#include <dlfcn.h>

#include <string>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr char kName[] = "libpq.so.5";

[[noreturn]] void fail() {
    char const* const why = ::dlerror();
    throw Failure(KVX_E_LEDGER_CANNOT_OPEN,
                  std::string("PostgreSQL's client library cannot be used: ") + (why == nullptr ? kName : why));
}

template <class Function>
void find(void* library, char const* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
    if (function == nullptr) {
        fail();
    }
}

Libpq loaded() {
    void* const library = ::dlopen(kName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fail();
    }
    Libpq table{};
    find(library, "PQconnectdbParams", table.connectdbParams);
    find(library, "PQconninfoParse", table.conninfoParse);
    find(library, "PQconninfoFree", table.conninfoFree);
    find(library, "PQfreemem", table.freemem);
    find(library, "PQfinish", table.finish);
    find(library, "PQstatus", table.status);
    find(library, "PQsocket", table.socket);
    find(library, "PQerrorMessage", table.errorMessage);
    find(library, "PQsetnonblocking", table.setnonblocking);
    find(library, "PQsendQuery", table.sendQuery);
    find(library, "PQsendPrepare", table.sendPrepare);
    find(library, "PQsendQueryPrepared", table.sendQueryPrepared);
    find(library, "PQflush", table.flush);
    find(library, "PQconsumeInput", table.consumeInput);
    find(library, "PQisBusy", table.isBusy);
    find(library, "PQgetResult", table.getResult);
    find(library, "PQclear", table.clear);
    find(library, "PQresultStatus", table.resultStatus);
    find(library, "PQresultErrorField", table.resultErrorField);
    find(library, "PQcmdStatus", table.cmdStatus);
    find(library, "PQntuples", table.ntuples);
    find(library, "PQnfields", table.nfields);
    find(library, "PQftype", table.ftype);
    find(library, "PQfformat", table.fformat);
    find(library, "PQgetisnull", table.getisnull);
    find(library, "PQgetvalue", table.getvalue);
    find(library, "PQgetlength", table.getlength);
    find(library, "PQsetNoticeProcessor", table.setNoticeProcessor);
    return table;
}

}  // namespace

Libpq const& libpq() {
    static Libpq const s_Table = loaded();
    return s_Table;
}

}  // namespace ledger
