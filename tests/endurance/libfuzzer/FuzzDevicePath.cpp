// Paths of devices from texts of any kind: what belongs together stays together.
#include "DevicePath.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    const QString adapter = "/org/bluez/1/hci0";
    const QString device = DevicePath::ofAddress(adapter, text);
    const bool isBelow = device.startsWith(adapter + "/dev_") && !device.contains(':');
    const bool findsBack = text.contains('/') || DevicePath::adapterOf(device) == adapter;
    if (!isBelow || !findsBack)
        abort();
    DevicePath::adapterOf(text);
    DevicePath::pulseAudioSource(text);
    return 0;
}
