// platform_prefix.h: the directory where the module keeps its settings and
// its event log, and the host's few writes into it.
//
// The module finds its prefix as this host does: the environment variable
// QBSMTP_PREFIX, else $HOME/.qbsmtp. It holds registry.reg (the settings),
// services (the SMTP port, /etc/services format) and events.jsonl. The
// host writes only the services file, and only before the module is
// loaded, because the module reads it once at load.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace qbsmtp::host {

struct Prefix {
    std::filesystem::path directory;
    bool is_default = false;  // no QBSMTP_PREFIX: $HOME/.qbsmtp

    std::filesystem::path services() const { return directory / "services"; }
    std::filesystem::path events() const { return directory / "events.jsonl"; }
    std::filesystem::path registry() const { return directory / "registry.reg"; }
    std::filesystem::path spool() const { return directory / "spool"; }
};

// The prefix the module will use, from the environment of this process.
Prefix resolve_prefix();

// The port the first "smtp .../tcp" line of a services file names, if any.
std::optional<int> read_smtp_port(const std::filesystem::path& services);

// Writes "smtp <port>/tcp" into the services file, replacing an earlier
// smtp/tcp line and keeping every other line; creates the file and its
// directory if needed. False with error set if the file can't be written.
bool write_smtp_port(const std::filesystem::path& services, int port, std::string& error);

// An smtp/tcp entry for one load of the module: apply() writes it as
// write_smtp_port does, restore() (or the destructor) puts back the file
// as it was, or removes it if there was none. The module reads the file
// once, when it loads, so restoring right after the load leaves the
// prefix's own port to every later run.
class TemporarySmtpPort {
  public:
    TemporarySmtpPort() = default;
    TemporarySmtpPort(const TemporarySmtpPort&) = delete;
    TemporarySmtpPort& operator=(const TemporarySmtpPort&) = delete;
    ~TemporarySmtpPort() { restore(); }

    bool apply(const std::filesystem::path& services, int port, std::string& error);
    void restore();

  private:
    std::filesystem::path services_;
    std::optional<std::string> original_;  // the file's bytes; nothing if there was no file
    bool applied_ = false;
};

// Settings under the module's key for one load of the module: apply()
// adds them at the end of registry.reg (a later line wins over an earlier
// one), restore() (or the destructor) puts the file back as it was. A file
// made here is readable by its owner only (it names secret files); a
// warning goes to stderr when an existing one is readable by others.
class TemporarySettings {
  public:
    TemporarySettings() = default;
    TemporarySettings(const TemporarySettings&) = delete;
    TemporarySettings& operator=(const TemporarySettings&) = delete;
    ~TemporarySettings() { restore(); }

    // lines: REGEDIT4 value lines ("Name"=dword:... or "Name"="text").
    bool apply(const std::filesystem::path& registry, const std::string& lines, std::string& error);
    void restore();

  private:
    std::filesystem::path registry_;
    std::optional<std::string> original_;
    bool applied_ = false;
};
// A REGEDIT4 text value line, with backslashes and quotes escaped.
std::string registry_text_line(const std::string& name, const std::string& value);

// The port the module will listen on and send to: the prefix's services
// file first, then the system's, then 25.
int effective_smtp_port(const Prefix& prefix);

// The port that a default prefix gets on its first run, so that the
// gateway works without root.
inline constexpr int first_run_port = 2525;

}  // namespace qbsmtp::host
