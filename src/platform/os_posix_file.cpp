// os_posix_file.cpp: files and directories with Win32 semantics.
//
// A file HANDLE is a registered FileObject that owns one descriptor, opened
// close-on-exec with mode 0644 (less the umask). Reads and writes loop over
// short transfers and EINTR: ReadFile stops early only at the end of the
// file, WriteFile writes everything or fails. Names are checked as Windows
// checks them (os_posix_names.cpp) before anything touches the disk.
//
// Windows behaviours kept on purpose:
// - CREATE_ALWAYS and OPEN_ALWAYS succeed with last error 183 when the file
//   was there already, else 0.
// - A directory cannot be opened as a file (ERROR_ACCESS_DENIED).
// - MoveFileA never replaces its target (ERROR_ALREADY_EXISTS), and moves a
//   file to another file system by copying it. MoveFileExA's write-through
//   syncs the target's directory, the POSIX way to make a rename durable.
// - CopyFileA onto its own source fails (ERROR_SHARING_VIOLATION) instead of
//   truncating it, and removes a partial target when the copy fails.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
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

constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
// CreateDirectoryA leaves room for an 8.3 name below the directory.
constexpr std::size_t max_directory_path = MAX_PATH - 12;
constexpr std::size_t copy_buffer_size = 64 * 1024;

struct FileObject : posix::HandleObject {
    int fd;
};

FileObject* file_of(HANDLE handle) {
    return static_cast<FileObject*>(posix::handle_of(handle, posix::HandleKind::file));
}

// Refuses a missing or unusable name; true when the name may be used.
bool check_name(const char* name, std::size_t max_bytes) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (*name == '\0') {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    DWORD problem = posix::check_windows_path(name, max_bytes);
    if (problem != ERROR_SUCCESS) {
        SetLastError(problem);
        return false;
    }
    return true;
}

// Read or write on a descriptor without the access for it: Windows says
// access denied, not an invalid handle.
DWORD transfer_error(int error_number) {
    return error_number == EBADF ? ERROR_ACCESS_DENIED : posix::win32_from_errno(error_number);
}

BOOL fail(DWORD code) {
    SetLastError(code);
    return 0;
}

// Copies the bytes of one open file to another; false with errno set.
bool copy_contents(int source, int target) {
    char* buffer = new (std::nothrow) char[copy_buffer_size];
    if (buffer == nullptr) {
        errno = ENOMEM;
        return false;
    }
    bool good = true;
    for (;;) {
        const long got = posix::read_retrying(source, buffer, copy_buffer_size);
        if (got < 0) {
            good = false;
            break;
        }
        if (got == 0) break;
        std::size_t done;
        if (!posix::write_all(target, buffer, static_cast<std::size_t>(got), &done)) {
            good = false;
            break;
        }
    }
    int saved = errno;
    delete[] buffer;
    errno = saved;
    return good;
}

// The copy behind CopyFileA and a cross-device MoveFileA.
BOOL copy_file(const char* existing, const char* target, bool fail_if_exists) {
    int source = posix::open_retrying(existing, O_RDONLY, 0);
    if (source < 0) {
        posix::set_file_error(errno, existing);
        return 0;
    }
    struct stat source_status;
    if (::fstat(source, &source_status) != 0 || S_ISDIR(source_status.st_mode)) {
        ::close(source);
        return fail(ERROR_ACCESS_DENIED);
    }
    struct stat target_status;
    if (::stat(target, &target_status) == 0 && target_status.st_dev == source_status.st_dev &&
        target_status.st_ino == source_status.st_ino) {
        ::close(source);
        return fail(fail_if_exists ? ERROR_FILE_EXISTS : ERROR_SHARING_VIOLATION);
    }
    int flags = O_WRONLY | O_CREAT | (fail_if_exists ? O_EXCL : O_TRUNC);
    int destination = posix::open_retrying(target, flags, source_status.st_mode & 0777);
    if (destination < 0) {
        int error_number = errno;
        ::close(source);
        if (error_number == EEXIST) return fail(ERROR_FILE_EXISTS);
        posix::set_file_error(error_number, target);
        return 0;
    }
    bool good = copy_contents(source, destination);
    int error_number = errno;
    if (good) {
        // The copy keeps the source's time of last write, as on Windows.
        timespec times[2] = {source_status.st_atim, source_status.st_mtim};
        ::futimens(destination, times);
    }
    if (::close(destination) != 0 && good) {
        good = false;
        error_number = errno;
    }
    ::close(source);
    if (!good) {
        ::unlink(target);
        return fail(posix::win32_from_errno(error_number));
    }
    return 1;
}

// rename() that never replaces the target; 0 or an errno value.
int rename_no_replace(const char* existing, const char* target) {
    if (::renameat2(AT_FDCWD, existing, AT_FDCWD, target, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // The file system cannot do it atomically: link and unlink for a file.
    if (::link(existing, target) == 0) {
        ::unlink(existing);
        return 0;
    }
    if (errno != EPERM) return errno;
    // A directory cannot be linked: test first, then rename.
    struct stat status;
    if (::lstat(target, &status) == 0) return EEXIST;
    return ::rename(existing, target) == 0 ? 0 : errno;
}

}  // namespace

HANDLE CreateFileA(const char* name, DWORD access, DWORD /*share_mode*/, void* /*security*/,
                   DWORD disposition, DWORD flags, HANDLE /*template_file*/) {
    if (fault_hit(Op::CreateFileA)) return INVALID_HANDLE_VALUE;
    if (!check_name(name, MAX_PATH)) return INVALID_HANDLE_VALUE;

    bool reads = (access & GENERIC_READ) != 0;
    bool writes = (access & GENERIC_WRITE) != 0;
    int open_flags = reads && writes ? O_RDWR : (writes ? O_WRONLY : O_RDONLY);
    mode_t mode = (flags & FILE_ATTRIBUTE_READONLY) != 0 ? 0444 : 0644;
    int fd = -1;
    bool existed = false;
    switch (disposition) {
        case CREATE_NEW:
            fd = posix::open_retrying(name, open_flags | O_CREAT | O_EXCL, mode);
            break;
        case CREATE_ALWAYS:
        case OPEN_ALWAYS:
            fd = posix::open_retrying(name, open_flags | O_CREAT | O_EXCL, mode);
            if (fd < 0 && errno == EEXIST) {
                existed = true;
                int truncate = disposition == CREATE_ALWAYS ? O_TRUNC : 0;
                fd = posix::open_retrying(name, open_flags | truncate, mode);
            }
            break;
        case OPEN_EXISTING:
            fd = posix::open_retrying(name, open_flags, 0);
            break;
        case TRUNCATE_EXISTING:
            if (!writes) {
                SetLastError(ERROR_INVALID_PARAMETER);
                return INVALID_HANDLE_VALUE;
            }
            fd = posix::open_retrying(name, open_flags | O_TRUNC, 0);
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
    }
    if (fd < 0) {
        if (errno == EEXIST)
            SetLastError(ERROR_FILE_EXISTS);
        else
            posix::set_file_error(errno, name);
        return INVALID_HANDLE_VALUE;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0 || S_ISDIR(status.st_mode)) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    auto* file = new (std::nothrow) FileObject;
    if (file == nullptr) {
        ::close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    file->kind = posix::HandleKind::file;
    file->fd = fd;
    posix::register_handle(file);
    SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return static_cast<posix::HandleObject*>(file);
}

BOOL ReadFile(HANDLE handle, void* buffer, DWORD to_read, DWORD* read, void* /*overlapped*/) {
    if (read != nullptr) *read = 0;
    if (fault_hit(Op::ReadFile)) return 0;
    FileObject* file = file_of(handle);
    if (file == nullptr) return fail(ERROR_INVALID_HANDLE);
    if (buffer == nullptr && to_read != 0) return fail(ERROR_INVALID_PARAMETER);
    auto* bytes = static_cast<char*>(buffer);
    DWORD done = 0;
    while (done < to_read) {
        const long got = posix::read_retrying(file->fd, bytes + done, to_read - done);
        if (got < 0) {
            if (read != nullptr) *read = done;
            return fail(transfer_error(errno));
        }
        if (got == 0) break;  // end of file
        done += static_cast<DWORD>(got);
    }
    if (read != nullptr) *read = done;
    return 1;
}

BOOL WriteFile(HANDLE handle, const void* buffer, DWORD to_write, DWORD* written,
               void* /*overlapped*/) {
    if (written != nullptr) *written = 0;
    if (fault_hit(Op::WriteFile)) return 0;
    FileObject* file = file_of(handle);
    if (file == nullptr) return fail(ERROR_INVALID_HANDLE);
    if (buffer == nullptr && to_write != 0) return fail(ERROR_INVALID_PARAMETER);
    std::size_t done;
    bool good = posix::write_all(file->fd, static_cast<const char*>(buffer), to_write, &done);
    if (written != nullptr) *written = static_cast<DWORD>(done);
    if (!good) return fail(transfer_error(errno));
    return 1;
}

BOOL FlushFileBuffers(HANDLE handle) {
    if (fault_hit(Op::FlushFileBuffers)) return 0;
    FileObject* file = file_of(handle);
    if (file == nullptr) return fail(ERROR_INVALID_HANDLE);
    if (posix::fsync_retrying(file->fd) != 0) return fail(transfer_error(errno));
    return 1;
}

BOOL SetFilePointerEx(HANDLE handle, LONGLONG distance, LONGLONG* new_position, DWORD method) {
    if (fault_hit(Op::SetFilePointerEx)) return 0;
    FileObject* file = file_of(handle);
    if (file == nullptr) return fail(ERROR_INVALID_HANDLE);
    static constexpr int whence_of[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (method > FILE_END) return fail(ERROR_INVALID_PARAMETER);
    off_t position = ::lseek(file->fd, static_cast<off_t>(distance), whence_of[method]);
    if (position < 0)
        return fail(errno == EINVAL ? ERROR_NEGATIVE_SEEK : posix::win32_from_errno(errno));
    if (new_position != nullptr) *new_position = position;
    return 1;
}

BOOL GetFileSizeEx(HANDLE handle, LONGLONG* size) {
    if (fault_hit(Op::GetFileSizeEx)) return 0;
    FileObject* file = file_of(handle);
    if (file == nullptr) return fail(ERROR_INVALID_HANDLE);
    if (size == nullptr) return fail(ERROR_INVALID_PARAMETER);
    struct stat status;
    if (::fstat(file->fd, &status) != 0) return fail(posix::win32_from_errno(errno));
    *size = status.st_size;
    return 1;
}

namespace posix {

BOOL close_file_handle(HANDLE handle) {
    HandleObject* object = take_handle(handle, HandleKind::file);
    if (object == nullptr) return fail(ERROR_INVALID_HANDLE);
    auto* file = static_cast<FileObject*>(object);
    // No retry on EINTR: Linux has released the descriptor either way.
    int result = ::close(file->fd);
    int error_number = errno;
    delete file;
    if (result != 0 && error_number != EINTR) return fail(win32_from_errno(error_number));
    return 1;
}

}  // namespace posix

BOOL CopyFileA(const char* existing, const char* target, BOOL fail_if_exists) {
    if (fault_hit(Op::CopyFileA)) return 0;
    if (!check_name(existing, MAX_PATH) || !check_name(target, MAX_PATH)) return 0;
    return copy_file(existing, target, fail_if_exists != 0);
}

BOOL MoveFileA(const char* existing, const char* target) {
    if (fault_hit(Op::MoveFileA)) return 0;
    if (!check_name(existing, MAX_PATH) || !check_name(target, MAX_PATH)) return 0;
    int error_number = rename_no_replace(existing, target);
    if (error_number == 0) return 1;
    if (error_number == EEXIST || error_number == ENOTEMPTY) return fail(ERROR_ALREADY_EXISTS);
    if (error_number == EXDEV) {
        struct stat status;
        if (::stat(existing, &status) == 0 && S_ISDIR(status.st_mode))
            return fail(17 /* ERROR_NOT_SAME_DEVICE */);
        if (!copy_file(existing, target, true)) {
            if (GetLastError() == ERROR_FILE_EXISTS) SetLastError(ERROR_ALREADY_EXISTS);
            return 0;
        }
        ::unlink(existing);
        return 1;
    }
    // Say which side is missing: the source (2/3) or the target's directory (3).
    struct stat status;
    if (error_number == ENOENT && ::lstat(existing, &status) == 0)
        return fail(ERROR_PATH_NOT_FOUND);
    posix::set_file_error(error_number, existing);
    return 0;
}

BOOL MoveFileExA(const char* existing, const char* target, DWORD flags) {
    if (!MoveFileA(existing, target)) return 0;
    if ((flags & MOVEFILE_WRITE_THROUGH) == 0) return 1;
    // The rename is on the disk once the target's directory is.
    if (fault_hit(Op::FlushFileBuffers)) return 0;
    std::string directory(target);
    const std::size_t slash = directory.rfind('/');
    directory = slash == std::string::npos ? "." : slash == 0 ? "/" : directory.substr(0, slash);
    const int fd = posix::open_retrying(directory.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (fd < 0) {
        posix::set_file_error(errno, directory.c_str());
        return 0;
    }
    const int result = posix::fsync_retrying(fd);
    const int error_number = errno;
    ::close(fd);
    if (result != 0) return fail(posix::win32_from_errno(error_number));
    return 1;
}

BOOL DeleteFileA(const char* name) {
    if (fault_hit(Op::DeleteFileA)) return 0;
    if (!check_name(name, MAX_PATH)) return 0;
    if (::unlink(name) == 0) return 1;
    if (errno == EISDIR || errno == EPERM) {
        struct stat status;
        if (::lstat(name, &status) == 0 && S_ISDIR(status.st_mode))
            return fail(ERROR_ACCESS_DENIED);
    }
    posix::set_file_error(errno, name);
    return 0;
}

BOOL CreateDirectoryA(const char* path, void* /*security*/) {
    if (fault_hit(Op::CreateDirectoryA)) return 0;
    if (!check_name(path, max_directory_path)) return 0;
    if (::mkdir(path, 0755) == 0) return 1;
    if (errno == EEXIST) return fail(ERROR_ALREADY_EXISTS);
    if (errno == ENOENT) return fail(ERROR_PATH_NOT_FOUND);
    posix::set_file_error(errno, path);
    return 0;
}

DWORD GetFileAttributesA(const char* name) {
    if (fault_hit(Op::GetFileAttributesA)) return INVALID_FILE_ATTRIBUTES;
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_FILE_ATTRIBUTES;
    }
    struct stat status;
    if (::stat(name, &status) != 0) {
        posix::set_file_error(errno, name);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(status.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
    return (status.st_mode & S_IWUSR) == 0 ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
}

}  // namespace qbsmtp::os
