// Whatever is in the settings file: reading it goes well or is refused, and a value that was
// written is there afterwards, beside what was there before.
#include "Configuration.h"
#include "host/PlatformLog.h"

#include <QByteArray>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

// What is wrong with a file is not of interest here.
void platformLog(int, const QString &, const QString &) { }

namespace {

const char Section[] = "BLUETOOTH";

/// The settings file, in memory, and gone with the program.
class SettingsFile
{
public:
    SettingsFile() { setenv("ULMO_SETTINGS", m_name.constData(), 1); }
    ~SettingsFile() { unlink(m_name.constData()); }

    void write(const uint8_t *data, size_t size)
    {
        FILE *file = fopen(m_name.constData(), "w");
        if (!file || fwrite(data, 1, size, file) != size || fclose(file) != 0)
            abort();
    }

private:
    const QByteArray m_name = "/dev/shm/fuzz-settings." + QByteArray::number(getpid());
};

void expect(bool holds)
{
    if (!holds)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static SettingsFile file;
    file.write(data, size);
    Configuration configuration("/fuzz");
    const int latency = configuration.ReadConfigValue(Section, "bt-latency", 1000, nullptr, true);
    const QString nickname =
        configuration.ReadConfigValue("GENERAL", "Nickname", QString(), nullptr, true);
    const bool written = configuration.WriteConfigValue(Section, "bt-pid", "1234", false);
    expect(written == configuration.isValid());
    if (!written)
        return 0;

    Configuration again("/fuzz");
    expect(again.isValid());
    expect(again.ReadConfigValue(Section, "bt-pid", QString(), nullptr, true) == "1234");
    expect(again.ReadConfigValue(Section, "bt-latency", 1000, nullptr, true) == latency);
    expect(again.ReadConfigValue("GENERAL", "Nickname", QString(), nullptr, true) == nickname);
    return 0;
}
