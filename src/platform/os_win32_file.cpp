// os_win32_file.cpp: files and directories: CreateFileA, ReadFile,
// WriteFile, FlushFileBuffers, SetFilePointerEx, GetFileSizeEx, CopyFileA,
// MoveFileA, MoveFileExA, DeleteFileA, CreateDirectoryA and
// GetFileAttributesA.
//
// Each is the Windows call itself; only the 64-bit positions change form
// (LONGLONG here, LARGE_INTEGER there).
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

HANDLE CreateFileA(const char* name, DWORD access, DWORD share_mode, void* security,
                   DWORD disposition, DWORD flags, HANDLE template_file) {
    if (fault_hit(Op::CreateFileA)) return INVALID_HANDLE_VALUE;
    return ::CreateFileA(name, access, share_mode, static_cast<LPSECURITY_ATTRIBUTES>(security),
                         disposition, flags, template_file);
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read, void* overlapped) {
    if (read != nullptr) *read = 0;
    if (fault_hit(Op::ReadFile)) return 0;
    ::DWORD done = 0;
    BOOL result = ::ReadFile(file, buffer, to_read, &done, static_cast<LPOVERLAPPED>(overlapped));
    if (read != nullptr) *read = done;
    return result;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written, void* overlapped) {
    if (written != nullptr) *written = 0;
    if (fault_hit(Op::WriteFile)) return 0;
    ::DWORD done = 0;
    BOOL result = ::WriteFile(file, buffer, to_write, &done, static_cast<LPOVERLAPPED>(overlapped));
    if (written != nullptr) *written = done;
    return result;
}

BOOL SetFilePointerEx(HANDLE file, LONGLONG distance, LONGLONG* new_position, DWORD method) {
    if (fault_hit(Op::SetFilePointerEx)) return 0;
    LARGE_INTEGER move;
    move.QuadPart = distance;
    LARGE_INTEGER position;
    position.QuadPart = 0;
    BOOL result = ::SetFilePointerEx(file, move, &position, method);
    if (result && new_position != nullptr) *new_position = position.QuadPart;
    return result;
}

BOOL GetFileSizeEx(HANDLE file, LONGLONG* size) {
    if (fault_hit(Op::GetFileSizeEx)) return 0;
    if (size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    LARGE_INTEGER native;
    BOOL result = ::GetFileSizeEx(file, &native);
    if (result) *size = native.QuadPart;
    return result;
}

BOOL FlushFileBuffers(HANDLE file) {
    if (fault_hit(Op::FlushFileBuffers)) return 0;
    return ::FlushFileBuffers(file);
}

BOOL CopyFileA(const char* existing, const char* target, BOOL fail_if_exists) {
    if (fault_hit(Op::CopyFileA)) return 0;
    return ::CopyFileA(existing, target, fail_if_exists);
}

BOOL MoveFileA(const char* existing, const char* target) {
    if (fault_hit(Op::MoveFileA)) return 0;
    return ::MoveFileA(existing, target);
}

BOOL MoveFileExA(const char* existing, const char* target, DWORD flags) {
    if (fault_hit(Op::MoveFileA)) return 0;
    // As MoveFileA, a file may go to another volume by a copy.
    return ::MoveFileExA(existing, target, flags | MOVEFILE_COPY_ALLOWED);
}

BOOL DeleteFileA(const char* name) {
    if (fault_hit(Op::DeleteFileA)) return 0;
    return ::DeleteFileA(name);
}

BOOL CreateDirectoryA(const char* path, void* security) {
    if (fault_hit(Op::CreateDirectoryA)) return 0;
    return ::CreateDirectoryA(path, static_cast<LPSECURITY_ATTRIBUTES>(security));
}

DWORD GetFileAttributesA(const char* name) {
    if (fault_hit(Op::GetFileAttributesA)) return INVALID_FILE_ATTRIBUTES;
    return ::GetFileAttributesA(name);
}

}  // namespace qbsmtp::os
