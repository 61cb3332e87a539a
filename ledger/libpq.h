/// The client library of PostgreSQL, loaded when the first store on a PostgreSQL server is opened.
///
/// A shop that keeps its orders in SQLite then needs neither the library nor its dependencies.
#ifndef TALLOWIN_LEDGER_LIBPQ_H
#define TALLOWIN_LEDGER_LIBPQ_H

#include <libpq-fe.h>

namespace ledger {

/// The functions that the ledger calls, under their names without the prefix.
struct Libpq {
    decltype(&PQconnectdbParams) connectdbParams;
    decltype(&PQconninfoParse) conninfoParse;
    decltype(&PQconninfoFree) conninfoFree;
    decltype(&PQfreemem) freemem;
    decltype(&PQfinish) finish;
    decltype(&PQstatus) status;
    decltype(&PQsocket) socket;
    decltype(&PQerrorMessage) errorMessage;
    decltype(&PQsetnonblocking) setnonblocking;
    decltype(&PQsendQuery) sendQuery;
    decltype(&PQsendPrepare) sendPrepare;
    decltype(&PQsendQueryPrepared) sendQueryPrepared;
    decltype(&PQflush) flush;
    decltype(&PQconsumeInput) consumeInput;
    decltype(&PQisBusy) isBusy;
    decltype(&PQgetResult) getResult;
    decltype(&PQclear) clear;
    decltype(&PQresultStatus) resultStatus;
    decltype(&PQresultErrorField) resultErrorField;
    decltype(&PQcmdStatus) cmdStatus;
    decltype(&PQntuples) ntuples;
    decltype(&PQnfields) nfields;
    decltype(&PQftype) ftype;
    decltype(&PQfformat) fformat;
    decltype(&PQgetisnull) getisnull;
    decltype(&PQgetvalue) getvalue;
    decltype(&PQgetlength) getlength;
    decltype(&PQsetNoticeProcessor) setNoticeProcessor;
};

/// The library, loaded once for the process and never unloaded. Throws Failure (KVX_E_LEDGER_CANNOT_OPEN) when it is
/// not installed. Any thread.
Libpq const& libpq();

}  // namespace ledger

#endif
