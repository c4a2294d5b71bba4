// os_posix_find.cpp: FindFirstFileA, FindNextFileA and FindClose over
// opendir/readdir.
//
// The pattern's last component is matched against each entry with '*' and
// '?', ignoring ASCII case, as Windows matches it; the directory part is
// taken as it is. Entries come in the order the file system gives them,
// "." and ".." among them as on Windows. Names longer than a Windows name
// can be (259 bytes) are passed over.
//
// The directory is read with getdents64 in small batches rather than
// through readdir, whose 32 KB buffer takes in the whole of a spool of a
// thousand files at every search: SMTPRecvNext searches from the start on
// every call and usually wants only the first match.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_fd.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

// Enough for a few dozen entries of 8.3 names per system call.
constexpr std::size_t batch_size = 2048;

struct FindObject : posix::HandleObject {
    int directory = -1;  // open with O_DIRECTORY
    alignas(dirent64) char batch[batch_size];
    std::size_t batch_offset = 0;  // next entry in batch
    std::size_t batch_length = 0;  // bytes of entries in batch
    std::string directory_path;    // with a trailing '/', or empty for the current directory
    std::string pattern;           // the last component of the search pattern
};

// Fills data from the entry name in the search's directory.
void fill_find_data(const FindObject& search, const char* name, WIN32_FIND_DATAA* data) {
    std::memset(data, 0, sizeof *data);
    std::strcpy(data->cFileName, name);  // length checked by the caller
    std::string path = search.directory_path + name;
    struct stat status;
    if (::stat(path.c_str(), &status) != 0 && ::lstat(path.c_str(), &status) != 0) {
        data->dwFileAttributes = FILE_ATTRIBUTE_NORMAL;  // vanished meanwhile
        return;
    }
    if (S_ISDIR(status.st_mode))
        data->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    else
        data->dwFileAttributes =
            (status.st_mode & S_IWUSR) == 0 ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
    if (!S_ISDIR(status.st_mode)) {
        auto size = static_cast<std::uint64_t>(status.st_size);
        data->nFileSizeHigh = static_cast<DWORD>(size >> 32);
        data->nFileSizeLow = static_cast<DWORD>(size);
    }
    // POSIX has no creation time; the earlier of change and write time
    // comes closest.
    const timespec& created =
        (status.st_ctim.tv_sec < status.st_mtim.tv_sec) ? status.st_ctim : status.st_mtim;
    data->ftCreationTime = posix::filetime_from_unix(created.tv_sec, created.tv_nsec);
    data->ftLastAccessTime =
        posix::filetime_from_unix(status.st_atim.tv_sec, status.st_atim.tv_nsec);
    data->ftLastWriteTime =
        posix::filetime_from_unix(status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
}

// The next entry, or null at the end (errno 0) or on a failure.
const dirent64* next_entry(FindObject& search) {
    if (search.batch_offset >= search.batch_length) {
        ssize_t got;
        do {
            errno = 0;
            got = ::getdents64(search.directory, search.batch, sizeof search.batch);
        } while (got < 0 && errno == EINTR);
        if (got <= 0) return nullptr;
        search.batch_offset = 0;
        search.batch_length = static_cast<std::size_t>(got);
    }
    const auto* entry = reinterpret_cast<const dirent64*>(search.batch + search.batch_offset);
    search.batch_offset += entry->d_reclen;
    return entry;
}

// Reads entries up to the next match; false at the end, with errno 0, or
// on a failure, with errno set.
bool next_match(FindObject& search, WIN32_FIND_DATAA* data) {
    for (;;) {
        const dirent64* entry = next_entry(search);
        if (entry == nullptr) return false;
        if (std::strlen(entry->d_name) >= MAX_PATH) continue;
        if (!posix::wildcard_match(search.pattern.c_str(), entry->d_name)) continue;
        fill_find_data(search, entry->d_name, data);
        return true;
    }
}

void destroy(FindObject* search) {
    ::close(search->directory);
    delete search;
}

}  // namespace

HANDLE FindFirstFileA(const char* pattern, WIN32_FIND_DATAA* data) {
    if (fault_hit(Op::FindFirstFileA)) return INVALID_HANDLE_VALUE;
    if (pattern == nullptr || data == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    const char* slash = std::strrchr(pattern, '/');
    std::string directory_path = slash != nullptr ? std::string(pattern, slash + 1) : std::string();
    const char* last = slash != nullptr ? slash + 1 : pattern;
    if (*last == '\0') {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const int directory = posix::open_retrying(
        directory_path.empty() ? "." : directory_path.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (directory < 0) {
        int error_number = errno;
        SetLastError(error_number == ENOENT || error_number == ENOTDIR
                         ? ERROR_PATH_NOT_FOUND
                         : posix::win32_from_errno(error_number));
        return INVALID_HANDLE_VALUE;
    }
    auto* search = new (std::nothrow) FindObject;
    if (search == nullptr) {
        ::close(directory);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    search->kind = posix::HandleKind::find;
    search->directory = directory;
    search->directory_path = std::move(directory_path);
    search->pattern = last;
    if (!next_match(*search, data)) {
        int error_number = errno;
        destroy(search);
        SetLastError(error_number == 0 ? ERROR_FILE_NOT_FOUND
                                       : posix::win32_from_errno(error_number));
        return INVALID_HANDLE_VALUE;
    }
    posix::register_handle(search);
    return static_cast<posix::HandleObject*>(search);
}

BOOL FindNextFileA(HANDLE handle, WIN32_FIND_DATAA* data) {
    if (fault_hit(Op::FindNextFileA)) return 0;
    auto* search = static_cast<FindObject*>(posix::handle_of(handle, posix::HandleKind::find));
    if (search == nullptr || data == nullptr) {
        SetLastError(search == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (next_match(*search, data)) return 1;
    SetLastError(errno == 0 ? ERROR_NO_MORE_FILES : posix::win32_from_errno(errno));
    return 0;
}

BOOL FindClose(HANDLE handle) {
    posix::HandleObject* object = posix::take_handle(handle, posix::HandleKind::find);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    destroy(static_cast<FindObject*>(object));
    return 1;
}

}  // namespace qbsmtp::os
