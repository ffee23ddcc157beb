// The configuration store as an INI file, read and written with GLib's key file: it keeps comments,
// order and unknown keys, and takes a section named GENERAL as it is.
#include <glib.h>

#include "Configuration.h"
#include "PlatformLog.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace {
struct Deleter
{
    void operator()(GKeyFile *keys) const { g_key_file_free(keys); }
    void operator()(gchar *text) const { g_free(text); }
};
typedef std::unique_ptr<GKeyFile, Deleter> KeyFile;
typedef std::unique_ptr<gchar, Deleter> Text;

QByteArray settingsPath()
{
    const QByteArray path = qgetenv("ULMO_SETTINGS");
    return path.isEmpty() ? QByteArray("/var/lib/ulmo/settings.ini") : path;
}

/**
 * GLib takes only lines with '#' for comments. Those with ';' are hidden from it behind this, and
 * so are those that look hidden already.
 */
const char CommentMark[] = "#\x1f";
const int CommentMarkSize = sizeof CommentMark - 1;

/** Calls change(line) for each line, its end included, and joins what that makes of them. */
template<class Change>
QByteArray changedLines(const QByteArray &content, Change change)
{
    QByteArray changed;
    for (int begin = 0; begin < content.size();) {
        const int newline = content.indexOf('\n', begin);
        const int end = newline < 0 ? content.size() : newline + 1;
        changed += change(content.mid(begin, end - begin));
        begin = end;
    }
    return changed;
}

QByteArray withMark(const QByteArray &line)
{
    const QByteArray text = line.trimmed();
    return text.startsWith(';') || text.startsWith(CommentMark) ? CommentMark + line : line;
}

QByteArray withoutMark(const QByteArray &line)
{
    return line.startsWith(CommentMark) ? line.mid(CommentMarkSize) : line;
}

/** Undoes the format's escapes. Others stay: some GLib give no text at all where there is one. */
QByteArray unescaped(QByteArray text)
{
    for (int at = 0; (at = text.indexOf('\\', at)) >= 0; ++at) {
        const int known = QByteArray("sntr\\").indexOf(text.constData()[at + 1]);
        if (known >= 0)
            text.replace(at, 2, QByteArray(1, " \n\t\r\\"[known]));
    }
    return text;
}

/** Reads the file; a missing one is empty. Without keys, but with a reason, where it fails. */
KeyFile readKeyFile(const QByteArray &path, QString &reason)
{
    g_autoptr(GError) error = nullptr;
    gchar *text = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.constData(), &text, &length, &error)) {
        if (g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
            return KeyFile(g_key_file_new());
        reason = QString::fromUtf8(error->message);
        return KeyFile();
    }
    const Text owner(text);
    QByteArray content(text, static_cast<int>(length));
    if (content.startsWith("\xef\xbb\xbf")) // editors on Windows mark UTF-8 so
        content.remove(0, 3);
    if (!g_utf8_validate(content.constData(), content.size(), nullptr)) {
        reason = "not UTF-8 text";
        return KeyFile();
    }
    content = changedLines(content, withMark);
    KeyFile keys(g_key_file_new());
    const GKeyFileFlags keepAll =
        static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
    if (!g_key_file_load_from_data(keys.get(), content.constData(), content.size(), keepAll,
                                   &error)) {
        reason = QString::fromUtf8(error->message);
        return KeyFile();
    }
    return keys;
}

/** What a chain of symbolic links ends in, which need not exist. */
QString linkTarget(QString path)
{
    const int followedByTheKernel = 40;
    for (int hops = 0; hops < followedByTheKernel && QFileInfo(path).isSymLink(); ++hops)
        path = QFileInfo(path).symLinkTarget();
    return path;
}

/**
 * Gives the file new content, durably: whoever reads it, even after a power cut, sees the old or
 * the new one. Owner and mode are kept, a link is followed, missing folders are made; a new file
 * belongs to its owner alone. Returns the reason when that failed, or nothing.
 */
QString replaceFile(const QByteArray &path, const QByteArray &content)
{
    // GLib would replace the link itself.
    const QByteArray target = QFile::encodeName(linkTarget(QFile::decodeName(path)));
    const Text folder(g_path_get_dirname(target.constData()));
    if (g_mkdir_with_parents(folder.get(), 0755) != 0)
        return QString("cannot make its folder: ") + g_strerror(errno);
    struct stat status;
    const bool exists = stat(target.constData(), &status) == 0;
    // GLib makes a new file, which only root can give away again.
    if (exists && status.st_uid != geteuid() && geteuid() != 0)
        return "the file belongs to another user";
    g_autoptr(GError) error = nullptr;
    const GFileSetContentsFlags safely = static_cast<GFileSetContentsFlags>(
        G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (!g_file_set_contents_full(target.constData(), content.constData(), content.size(), safely,
                                  0600, &error))
        return QString::fromUtf8(error->message);
    // Owner first: changing it clears some bits of the mode.
    if (exists
        && (chown(target.constData(), status.st_uid, status.st_gid) != 0
            || chmod(target.constData(), status.st_mode & 07777) != 0))
        return QString("cannot keep its owner and mode: ") + g_strerror(errno);
    return QString();
}
} // namespace

struct Configuration::Private
{
    const QString objectPath;
    const QByteArray path;
    /** Null when the file was unusable. */
    KeyFile keys;

    /** Reads the file anew and logs why it is unusable. */
    KeyFile read() const
    {
        QString reason;
        KeyFile read = readKeyFile(path, reason);
        if (!read)
            log(1, QString("unusable: ") + reason);
        return read;
    }

    void log(int level, const QString &text) const
    {
        platformLog(level, objectPath, "settings file " + QFile::decodeName(path) + ' ' + text);
    }
};

Configuration::Configuration(const QString &objectPath)
    : d(new Private {objectPath, settingsPath(), KeyFile()})
{
    d->keys = d->read();
}

Configuration::~Configuration()
{
    delete d;
}

bool Configuration::isValid() const
{
    return d->keys != nullptr;
}

int Configuration::ReadConfigValue(const QString &section, const QString &key, int defaultValue,
                                   bool *ok, bool flag)
{
    bool isThere = false;
    bool isInteger = false;
    const QString stored = ReadConfigValue(section, key, QString(), &isThere, flag);
    const int number = stored.toInt(&isInteger);
    if (isThere && !isInteger)
        d->log(2,
               QString("[%1] %2: \"%3\" is no integer, the default is used")
                   .arg(section, key, stored));
    if (ok)
        *ok = isInteger;
    return isInteger ? number : defaultValue;
}

QString Configuration::ReadConfigValue(const QString &section, const QString &key,
                                       const QString &defaultValue, bool *ok, bool)
{
    const Text value(d->keys ? g_key_file_get_value(d->keys.get(), section.toUtf8().constData(),
                                                    key.toUtf8().constData(), nullptr)
                             : nullptr);
    if (ok)
        *ok = value != nullptr;
    return value ? QString::fromUtf8(unescaped(value.get())) : defaultValue;
}

bool Configuration::WriteConfigValue(const QString &section, const QString &key,
                                     const QString &text, bool)
{
    // Others may have written since this client read the file.
    KeyFile keys = d->read();
    if (!keys)
        return false;
    g_key_file_set_string(keys.get(), section.toUtf8().constData(), key.toUtf8().constData(),
                          text.toUtf8().constData());
    gsize length = 0;
    const Text data(g_key_file_to_data(keys.get(), &length, nullptr));
    const QByteArray content(data.get(), static_cast<int>(length));
    const QString reason = replaceFile(d->path, changedLines(content, withoutMark));
    if (!reason.isEmpty()) {
        d->log(2, QString("not written: ") + reason);
        return false;
    }
    d->keys.swap(keys);
    return true;
}
