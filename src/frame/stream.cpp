// stream.cpp: the buffered file stream over the platform's file handles.
//
// A reading stream keeps one block: a pushback area in front of a
// buffer_size buffer. getc walks read_cursor_ up to read_end_; ungetc steps
// it back, into the pushback area once it passes the start of the buffer,
// and grows that area when a caller takes back more than it holds. A
// writing stream keeps only the buffer. Text mode ("r") translates each
// refill in place: CR LF becomes LF (a bit per delivered byte remembers
// where a CR was dropped, so positions stay exact) and byte 26 ends the
// input. The OS file pointer is tracked here, never asked for.
#include "frame/stream.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/os_fault.h"

namespace qbsmtp {

namespace {

// ReadFile and WriteFile take a DWORD count; direct transfers of big
// blocks go in pieces of this size.
constexpr std::size_t max_transfer = std::size_t{1} << 30;
constexpr std::size_t bits_per_word = 64;
constexpr char ctrl_z = 26;

struct ModeEntry {
    const char* mode;
    os::DWORD access;
    os::DWORD disposition;
    bool writing;
    bool append;
    bool text;
};

// The modes the module opens files with; searched from the top.
constexpr ModeEntry mode_table[] = {
    {"rb", os::GENERIC_READ, os::OPEN_EXISTING, false, false, false},
    {"wb", os::GENERIC_WRITE, os::CREATE_ALWAYS, true, false, false},
    {"ab", os::GENERIC_WRITE, os::OPEN_ALWAYS, true, true, false},
    {"r", os::GENERIC_READ, os::OPEN_EXISTING, false, false, true},
};

const ModeEntry* find_mode(const char* mode) {
    if (mode == nullptr) return nullptr;
    for (const ModeEntry& entry : mode_table)
        if (std::strcmp(entry.mode, mode) == 0) return &entry;
    return nullptr;
}

}  // namespace

struct Stream::Impl {
    os::HANDLE file = os::INVALID_HANDLE_VALUE;
    bool writing = false;
    bool append = false;
    bool text = false;

    char* storage = nullptr;  // pushback area, then the buffer
    std::size_t front = 0;    // size of the pushback area
    char* buffer = nullptr;   // storage + front

    std::int64_t file_position = 0;    // where the OS file pointer stands
    std::int64_t buffer_position = 0;  // file offset of buffer[0]

    // Text mode only.
    std::uint64_t* crlf_bits = nullptr;  // bit i: delivered byte i was CR LF
    bool carried_cr = false;             // a CR at the end of a refill awaits its successor
    bool ctrl_z_seen = false;            // the input ended at byte 26

    bool write_failed = false;  // a write or flush failed; close() reports it
    os::DWORD write_error = 0;  // the reason of the first failed write

    WriteObserver observer = nullptr;  // sees each run of bytes before it is written
    void* observer_context = nullptr;

    ~Impl() {
        delete[] storage;
        delete[] crlf_bits;
    }

    static void fail_read(Stream& s) {
        s.error_ = true;
        s.read_cursor_ = s.read_end_ = s.impl_->buffer;
    }

    static void fail_write(Stream& s, os::DWORD code) {
        Impl& m = *s.impl_;
        s.error_ = true;
        if (!m.write_failed) {
            m.write_failed = true;
            m.write_error = code;
        }
        // Every later putc takes the slow path and is refused there.
        s.write_cursor_ = s.write_end_ = m.buffer;
    }

    // Reads up to size bytes at the file pointer: the count, 0 at the end,
    // or -1 on failure.
    static std::int64_t read_raw(Stream& s, char* target, std::size_t size) {
        Impl& m = *s.impl_;
        os::DWORD got = 0;
        if (!os::ReadFile(m.file, target, static_cast<os::DWORD>(size), &got, nullptr)) {
            fail_read(s);
            return -1;
        }
        m.file_position += got;
        return got;
    }

    static bool write_raw(Stream& s, const char* source, std::size_t size) {
        Impl& m = *s.impl_;
        if (m.observer != nullptr) m.observer(m.observer_context, source, size);
        if (m.append) {
            // As an append-mode C stream: every write goes to the current end.
            os::LONGLONG end = 0;
            if (!os::SetFilePointerEx(m.file, 0, &end, os::FILE_END)) {
                fail_write(s, os::GetLastError());
                return false;
            }
            m.file_position = end;
        }
        while (size > 0) {
            std::size_t piece = size < max_transfer ? size : max_transfer;
            os::DWORD written = 0;
            if (!os::WriteFile(m.file, source, static_cast<os::DWORD>(piece), &written, nullptr)) {
                fail_write(s, os::GetLastError());
                return false;
            }
            m.file_position += written;
            source += piece;
            size -= piece;
        }
        return true;
    }

    // Translates raw bytes in buffer[0, total) in place; returns the count
    // delivered. eof_after says whether the file ended behind them.
    static std::size_t translate_text(Impl& m, std::size_t total, bool eof_after) {
        char* b = m.buffer;
        std::memset(m.crlf_bits, 0, buffer_size / 8);
        std::size_t r = 0;
        std::size_t w = 0;
        while (r < total) {
            char c = b[r];
            if (c == ctrl_z) {
                m.ctrl_z_seen = true;
                break;
            }
            if (c == '\r') {
                if (r + 1 == total && !eof_after) {
                    m.carried_cr = true;
                    break;
                }
                if (r + 1 < total && b[r + 1] == '\n') {
                    m.crlf_bits[w / bits_per_word] |= std::uint64_t{1} << (w % bits_per_word);
                    b[w++] = '\n';
                    r += 2;
                    continue;
                }
            }
            b[w++] = c;
            ++r;
        }
        return w;
    }

    // Fills the buffer: filled, at_end of the input, or failed.
    enum Refill { filled, ended, failed };
    static Refill refill(Stream& s) {
        Impl& m = *s.impl_;
        for (;;) {
            if (m.ctrl_z_seen) return ended;
            std::size_t have = 0;
            std::int64_t start = m.file_position;
            if (m.carried_cr) {
                m.buffer[0] = '\r';
                have = 1;
                start -= 1;
                m.carried_cr = false;
            }
            std::int64_t got = read_raw(s, m.buffer + have, buffer_size - have);
            if (got < 0) return failed;
            std::size_t total = have + static_cast<std::size_t>(got);
            m.buffer_position = start;
            std::size_t delivered = total;
            if (m.text) delivered = translate_text(m, total, got == 0);
            s.read_cursor_ = m.buffer;
            s.read_end_ = m.buffer + delivered;
            if (delivered > 0) return filled;
            if (total == 0 || m.ctrl_z_seen) return ended;
            // Only a CR came, held back for its successor: read on.
        }
    }

    // Delivered bytes of the buffer in front of index that stood for two.
    std::size_t crlf_before(std::size_t index) const {
        std::size_t count = 0;
        std::size_t words = index / bits_per_word;
        for (std::size_t i = 0; i < words; ++i) count += __builtin_popcountll(crlf_bits[i]);
        std::size_t rest = index % bits_per_word;
        if (rest != 0)
            count += __builtin_popcountll(crlf_bits[words] & ((std::uint64_t{1} << rest) - 1));
        return count;
    }

    // Makes the pushback area twice as large, keeping the unread bytes.
    static bool grow_front(Stream& s) {
        Impl& m = *s.impl_;
        std::size_t front = m.front * 2;
        char* storage = new (std::nothrow) char[front + buffer_size];
        if (storage == nullptr) return false;
        char* buffer = storage + front;
        std::ptrdiff_t from = s.read_cursor_ - m.buffer;
        std::ptrdiff_t to = s.read_end_ - m.buffer;
        std::memcpy(buffer + from, s.read_cursor_, static_cast<std::size_t>(to - from));
        delete[] m.storage;
        m.storage = storage;
        m.front = front;
        m.buffer = buffer;
        s.read_cursor_ = buffer + from;
        s.read_end_ = buffer + to;
        return true;
    }

    // A stream of the entry's mode with its buffers, on no file yet; null
    // with the last error set when memory is short.
    static Stream* make(const ModeEntry& entry) {
        Stream* s = new (std::nothrow) Stream;
        Impl* m = s != nullptr ? new (std::nothrow) Impl : nullptr;
        if (m == nullptr) {
            delete s;
            os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        s->impl_ = m;
        m->writing = entry.writing;
        m->append = entry.append;
        m->text = entry.text;
        m->front = m->writing ? 0 : max_pushback;
        m->storage = new (std::nothrow) char[m->front + buffer_size];
        if (m->text) m->crlf_bits = new (std::nothrow) std::uint64_t[buffer_size / bits_per_word];
        if (m->storage == nullptr || (m->text && m->crlf_bits == nullptr)) {
            delete s;
            os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        m->buffer = m->storage + m->front;
        return s;
    }

    // Puts the stream made by make on file, which it then owns: the stream,
    // or null (stream and file closed) with the last error set.
    static Stream* attach(Stream* s, os::HANDLE file) {
        Impl* m = s->impl_;
        m->file = file;
        if (m->append) {
            os::LONGLONG end = 0;
            if (!os::SetFilePointerEx(m->file, 0, &end, os::FILE_END)) {
                os::DWORD code = os::GetLastError();
                os::CloseHandle(m->file);
                m->file = os::INVALID_HANDLE_VALUE;
                delete s;
                os::SetLastError(code);
                return nullptr;
            }
            m->file_position = end;
        }
        if (m->writing) {
            s->write_cursor_ = m->buffer;
            s->write_end_ = m->buffer + buffer_size;
        } else {
            s->read_cursor_ = s->read_end_ = m->buffer;
        }
        return s;
    }

    void reset_reading(Stream& s, std::int64_t position) {
        buffer_position = position;
        carried_cr = false;
        ctrl_z_seen = false;
        s.read_cursor_ = s.read_end_ = buffer;
        s.at_end_ = false;
    }
};

Stream* Stream::open(const char* path, const char* mode) {
    const ModeEntry* entry = find_mode(mode);
    if (entry == nullptr || path == nullptr) {
        os::SetLastError(os::ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // The memory first: a stream that cannot be made touches no file.
    Stream* s = Impl::make(*entry);
    if (s == nullptr) return nullptr;
    os::HANDLE file =
        os::CreateFileA(path, entry->access, os::FILE_SHARE_READ | os::FILE_SHARE_WRITE, nullptr,
                        entry->disposition, os::FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == os::INVALID_HANDLE_VALUE) {
        os::DWORD code = os::GetLastError();
        delete s;
        os::SetLastError(code);
        return nullptr;
    }
    return Impl::attach(s, file);
}

Stream* Stream::adopt(os::HANDLE file, const char* mode) {
    const ModeEntry* entry = find_mode(mode);
    Stream* s = entry != nullptr ? Impl::make(*entry) : nullptr;
    if (s == nullptr) {
        const os::DWORD code = entry != nullptr ? os::GetLastError() : os::ERROR_INVALID_PARAMETER;
        os::CloseHandle(file);
        os::SetLastError(code);
        return nullptr;
    }
    return Impl::attach(s, file);
}

Stream::~Stream() {
    delete impl_;
}

int Stream::close() {
    int result = 0;
    os::DWORD code = 0;
    if (impl_->writing) flush();
    if (impl_->write_failed) {
        result = eof;
        code = impl_->write_error;
    }
    if (!os::CloseHandle(impl_->file)) {
        result = eof;
        code = os::GetLastError();
    }
    delete this;
    if (result != 0) os::SetLastError(code);
    return result;
}

int Stream::getc_slow() {
    if (impl_->writing) {
        error_ = true;
        os::SetLastError(os::ERROR_ACCESS_DENIED);
        return eof;
    }
    Impl::Refill result = Impl::refill(*this);
    if (result != Impl::filled) {
        if (result == Impl::ended) at_end_ = true;
        return eof;
    }
    return static_cast<unsigned char>(*read_cursor_++);
}

int Stream::ungetc(int c) {
    if (c == eof || impl_->writing) return eof;
    if (read_cursor_ == impl_->storage && !Impl::grow_front(*this)) return eof;
    *--read_cursor_ = static_cast<char>(c);
    at_end_ = false;
    return static_cast<unsigned char>(c);
}

int Stream::putc_slow(int c) {
    if (!impl_->writing) {
        error_ = true;
        os::SetLastError(os::ERROR_ACCESS_DENIED);
        return eof;
    }
    if (impl_->write_failed) return eof;
    if (flush() != 0) return eof;
    *write_cursor_++ = static_cast<char>(c);
    return static_cast<unsigned char>(c);
}

std::size_t Stream::read(void* buffer, std::size_t size) {
    if (impl_->writing) {
        error_ = true;
        os::SetLastError(os::ERROR_ACCESS_DENIED);
        return 0;
    }
    char* target = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        std::size_t held = static_cast<std::size_t>(read_end_ - read_cursor_);
        if (held > 0) {
            std::size_t take = held < size - done ? held : size - done;
            std::memcpy(target + done, read_cursor_, take);
            read_cursor_ += take;
            done += take;
            continue;
        }
        if (!impl_->text && size - done >= buffer_size) {
            // A big block goes straight to the caller, the buffer stays empty.
            std::size_t want = size - done;
            if (want > max_transfer) want = max_transfer;
            std::int64_t got = Impl::read_raw(*this, target + done, want);
            if (got <= 0) {
                if (got == 0) at_end_ = true;
                break;
            }
            done += static_cast<std::size_t>(got);
            impl_->reset_reading(*this, impl_->file_position);
            continue;
        }
        Impl::Refill result = Impl::refill(*this);
        if (result != Impl::filled) {
            if (result == Impl::ended) at_end_ = true;
            break;
        }
    }
    return done;
}

std::size_t Stream::write(const void* buffer, std::size_t size) {
    if (!impl_->writing) {
        error_ = true;
        os::SetLastError(os::ERROR_ACCESS_DENIED);
        return 0;
    }
    if (impl_->write_failed) return 0;
    const char* source = static_cast<const char*>(buffer);
    std::size_t room = static_cast<std::size_t>(write_end_ - write_cursor_);
    if (size <= room) {
        std::memcpy(write_cursor_, source, size);
        write_cursor_ += size;
        return size;
    }
    if (flush() != 0) return 0;
    if (size >= buffer_size) {
        if (!Impl::write_raw(*this, source, size)) return 0;
        return size;
    }
    std::memcpy(write_cursor_, source, size);
    write_cursor_ += size;
    return size;
}

char* Stream::gets(char* buffer, int size) {
    if (size <= 0 || buffer == nullptr) return nullptr;
    std::size_t limit = static_cast<std::size_t>(size) - 1;
    std::size_t done = 0;
    while (done < limit) {
        std::size_t held = static_cast<std::size_t>(read_end_ - read_cursor_);
        if (held == 0) {
            int c = getc_slow();
            // As fgets: a failed read gives no line, even a partial one.
            if (c == eof && !at_end_) return nullptr;
            if (c == eof) break;
            buffer[done++] = static_cast<char>(c);
            if (c == '\n') break;
            continue;
        }
        std::size_t take = held < limit - done ? held : limit - done;
        const void* lf = std::memchr(read_cursor_, '\n', take);
        if (lf != nullptr)
            take = static_cast<std::size_t>(static_cast<const char*>(lf) - read_cursor_) + 1;
        std::memcpy(buffer + done, read_cursor_, take);
        read_cursor_ += take;
        done += take;
        if (lf != nullptr) break;
    }
    if (done == 0 && limit > 0) return nullptr;
    buffer[done] = '\0';
    return buffer;
}

int Stream::printf(const char* format, ...) {
    char local[1024];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    int length = std::vsnprintf(local, sizeof local, format, arguments);
    va_end(arguments);
    if (length < 0) {
        va_end(again);
        return -1;
    }
    const char* text = local;
    char* heap = nullptr;
    if (static_cast<std::size_t>(length) >= sizeof local) {
        heap = new (std::nothrow) char[static_cast<std::size_t>(length) + 1];
        if (heap == nullptr) {
            va_end(again);
            error_ = true;
            os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
            return -1;
        }
        std::vsnprintf(heap, static_cast<std::size_t>(length) + 1, format, again);
        text = heap;
    }
    va_end(again);
    std::size_t written = write(text, static_cast<std::size_t>(length));
    delete[] heap;
    return written == static_cast<std::size_t>(length) ? length : -1;
}

int Stream::flush() {
    if (!impl_->writing) return 0;
    if (impl_->write_failed) return eof;
    std::size_t held = static_cast<std::size_t>(write_cursor_ - impl_->buffer);
    if (held == 0) return 0;
    if (!Impl::write_raw(*this, impl_->buffer, held)) return eof;
    write_cursor_ = impl_->buffer;
    return 0;
}

void Stream::observe_writes(WriteObserver observer, void* context) {
    impl_->observer = observer;
    impl_->observer_context = context;
}

int Stream::sync() {
    if (flush() != 0) return eof;
    if (!impl_->writing) return 0;
    if (!os::FlushFileBuffers(impl_->file)) {
        // Sticky as a failed write: close() reports it too.
        const os::DWORD code = os::GetLastError();
        Impl::fail_write(*this, code);
        os::SetLastError(code);
        return eof;
    }
    return 0;
}

int Stream::getpos(std::int64_t* position) {
    Impl& m = *impl_;
    std::int64_t at;
    if (m.writing) {
        at = m.file_position + (write_cursor_ - m.buffer);
    } else {
        std::ptrdiff_t index = read_cursor_ - m.buffer;
        at = m.buffer_position + index;
        if (m.text && index > 0)
            at += static_cast<std::int64_t>(m.crlf_before(static_cast<std::size_t>(index)));
    }
    if (at < 0) {
        // Bytes pushed back in front of the start of the file.
        os::SetLastError(os::ERROR_INVALID_PARAMETER);
        return -1;
    }
    *position = at;
    return 0;
}

int Stream::setpos(const std::int64_t* position) {
    Impl& m = *impl_;
    if (m.writing && flush() != 0) return -1;
    os::LONGLONG now = 0;
    if (!os::SetFilePointerEx(m.file, *position, &now, os::FILE_BEGIN)) {
        error_ = true;
        return -1;
    }
    m.file_position = now;
    if (!m.writing) m.reset_reading(*this, now);
    return 0;
}

void Stream::rewind() {
    std::int64_t start = 0;
    setpos(&start);
    // As the C library's rewind: the error indicator is cleared (a failed
    // write still makes close() fail).
    error_ = false;
    at_end_ = false;
}

}  // namespace qbsmtp
