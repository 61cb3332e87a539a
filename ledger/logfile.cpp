// A file system of SQLite's in which only the write-ahead log differs from the system's.
//
// Order: the log file and the bytes it keeps, the functions that SQLite calls, opening, then the functions of the
// header. The system's file lies behind the log file in memory; every function ends there. Functions that could see the
// difference write the kept bytes first.
#include "ledger/logfile.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

/// Laid out as SQLite demands: its part first. The system's file follows in the same memory.
struct LogFile {
    sqlite3_file m_Face;
    char* m_Kept;  ///< Owned: kRoom bytes.
    int m_KeptSize;
    sqlite3_int64 m_KeptAt;  ///< Where in the file.
    bool m_IsGathering;
};

namespace {

/// More than any commit of the ledger writes. A larger one is written in pieces.
constexpr int kRoom = 128 * 1024;

LogFile* logOf(sqlite3_file* file) noexcept {
    return reinterpret_cast<LogFile*>(file);
}

sqlite3_file* systemFileOf(LogFile* log) noexcept {
    return reinterpret_cast<sqlite3_file*>(log + 1);
}

int writeThrough(LogFile* log, void const* bytes, int size, sqlite3_int64 at) noexcept {
    sqlite3_file* const file = systemFileOf(log);
    return file->pMethods->xWrite(file, bytes, size, at);
}

/// Writes the kept bytes to the file. They are dropped also on failure: SQLite undoes a commit that fails.
int writeKept(LogFile* log) noexcept {
    int const size = log->m_KeptSize;
    log->m_KeptSize = 0;
    return size == 0 ? SQLITE_OK : writeThrough(log, log->m_Kept, size, log->m_KeptAt);
}

using Methods = sqlite3_io_methods;

/// Calls a function of the system's file.
template <auto Function, class... Arguments>
int handOn(sqlite3_file* face, Arguments... arguments) noexcept {
    sqlite3_file* const file = systemFileOf(logOf(face));
    return (file->pMethods->*Function)(file, arguments...);
}

/// Writes what is kept, then calls a function of the system's file.
template <auto Function, class... Arguments>
int afterKept(sqlite3_file* face, Arguments... arguments) noexcept {
    int const result = writeKept(logOf(face));
    return result == SQLITE_OK ? handOn<Function>(face, arguments...) : result;
}

int closeLog(sqlite3_file* face) noexcept {
    delete[] logOf(face)->m_Kept;
    return handOn<&Methods::xClose>(face);
}

int writeLog(sqlite3_file* face, void const* bytes, int size, sqlite3_int64 at) noexcept {
    LogFile* const log = logOf(face);
    bool const fits = at == log->m_KeptAt + log->m_KeptSize && size <= kRoom - log->m_KeptSize;
    if (log->m_KeptSize > 0 && !fits) {
        int const result = writeKept(log);
        if (result != SQLITE_OK) {
            return result;
        }
    }
    if (!log->m_IsGathering || size > kRoom) {
        return writeThrough(log, bytes, size, at);
    }
    if (log->m_KeptSize == 0) {
        log->m_KeptAt = at;
    }
    std::memcpy(log->m_Kept + log->m_KeptSize, bytes, static_cast<std::size_t>(size));
    log->m_KeptSize += size;
    return SQLITE_OK;
}

/// Version 1: SQLite maps no log into memory.
constexpr Methods kLogMethods = [] {
    Methods methods{};
    methods.iVersion = 1;
    methods.xClose = &closeLog;
    methods.xRead = &afterKept<&Methods::xRead, void*, int, sqlite3_int64>;
    methods.xWrite = &writeLog;
    methods.xTruncate = &afterKept<&Methods::xTruncate, sqlite3_int64>;
    methods.xSync = &afterKept<&Methods::xSync, int>;
    methods.xFileSize = &afterKept<&Methods::xFileSize, sqlite3_int64*>;
    methods.xLock = &handOn<&Methods::xLock, int>;
    methods.xUnlock = &handOn<&Methods::xUnlock, int>;
    methods.xCheckReservedLock = &handOn<&Methods::xCheckReservedLock, int*>;
    methods.xFileControl = &handOn<&Methods::xFileControl, int, void*>;
    methods.xSectorSize = &handOn<&Methods::xSectorSize>;
    methods.xDeviceCharacteristics = &handOn<&Methods::xDeviceCharacteristics>;
    return methods;
}();

/// Those that are the default when this is first called, after sqlite3_initialize().
sqlite3_vfs const* systemFiles() noexcept {
    static sqlite3_vfs const* const s_System = sqlite3_vfs_find(nullptr);
    return s_System;
}

/// Whether a write leaves the bytes around it alone when the power fails. Where it may not, SQLite adds copies of its
/// last page to a commit until a sector is full, and flushes the sector but not the rest of the last copy.
bool staysWhole(char const* logName) noexcept {
    sqlite3_file* const store = sqlite3_database_file_object(logName);
    return (store->pMethods->xDeviceCharacteristics(store) & SQLITE_IOCAP_POWERSAFE_OVERWRITE) != 0;
}

int openFile(sqlite3_vfs* /*self*/, char const* name, sqlite3_file* face, int flags, int* opened) noexcept {
    auto* const system = const_cast<sqlite3_vfs*>(systemFiles());
    if ((flags & SQLITE_OPEN_WAL) == 0 || !staysWhole(name)) {
        return system->xOpen(system, name, face, flags, opened);
    }
    face->pMethods = nullptr;  // nothing to close when it fails
    auto room = std::unique_ptr<char[]>(new (std::nothrow) char[kRoom]);
    if (room == nullptr) {
        return SQLITE_NOMEM;
    }
    auto* const log = new (face) LogFile{};
    sqlite3_file* const file = systemFileOf(log);
    int const result = system->xOpen(system, name, file, flags, opened);
    if (result != SQLITE_OK) {
        if (file->pMethods != nullptr) {
            file->pMethods->xClose(file);
        }
        return result;
    }
    log->m_Kept = room.release();
    log->m_Face.pMethods = &kLogMethods;
    return SQLITE_OK;
}

/// Adds the files to SQLite's under `name`, which outlives them.
int addFiles(char const* name) noexcept {
    static sqlite3_vfs s_Files;
    if (systemFiles() == nullptr) {
        return SQLITE_ERROR;
    }
    s_Files = *systemFiles();
    s_Files.pNext = nullptr;
    s_Files.zName = name;
    s_Files.szOsFile = static_cast<int>(sizeof(LogFile)) + systemFiles()->szOsFile;
    s_Files.xOpen = &openFile;
    return sqlite3_vfs_register(&s_Files, 0);
}

}  // namespace

char const* logFileSystem() {
    static constexpr char kName[] = "tallowin-ledger";
    // After an exception the next opening of a store tries again.
    [[maybe_unused]] static bool const s_IsThere = [] {
        int result = sqlite3_initialize();
        if (result == SQLITE_OK) {
            result = addFiles(kName);
        }
        if (result != SQLITE_OK) {
            throw Failure(result == SQLITE_NOMEM ? KVX_E_OUT_OF_MEMORY : KVX_E_LEDGER_CANNOT_OPEN,
                          std::string("SQLite has no files here: ") + sqlite3_errstr(result));
        }
        return true;
    }();
    return kName;
}

GatheredCommit::GatheredCommit(sqlite3* connection) noexcept {
    sqlite3_file* file = nullptr;
    bool const isThere =
        sqlite3_file_control(connection, "main", SQLITE_FCNTL_JOURNAL_POINTER, &file) == SQLITE_OK && file != nullptr;
    if (isThere && file->pMethods == &kLogMethods) {
        m_Log = logOf(file);
        m_Log->m_IsGathering = true;
    }
}

GatheredCommit::~GatheredCommit() {
    if (m_Log != nullptr) {
        m_Log->m_KeptSize = 0;
        m_Log->m_IsGathering = false;
    }
}

}  // namespace ledger
