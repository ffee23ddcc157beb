// Client of the product's configuration store: texts under a section and a key.
#ifndef CONFIGURATION_H
#define CONFIGURATION_H

#include <QtCore/QString>

class Configuration
{
public:
    /** Reads the store; the object path is the one that the client's own log lines carry. */
    explicit Configuration(const QString &objectPath);
    ~Configuration();

    /** False when the store exists but cannot be used; every read then gives the default. */
    bool isValid() const;

    /**
     * The stored value, or the default when there is none or, for an integer, when it is no decimal
     * integer. `ok` may be null; it is set to whether the value came from the store. The host
     * platform has no use for `flag`.
     */
    int ReadConfigValue(const QString &section, const QString &key, int defaultValue, bool *ok,
                        bool flag);
    QString ReadConfigValue(const QString &section, const QString &key, const QString &defaultValue,
                            bool *ok, bool flag);

    /**
     * Stores a text durably before it returns. False when that failed; the store is then unchanged.
     * The host platform has no use for `flag`.
     */
    bool WriteConfigValue(const QString &section, const QString &key, const QString &text,
                          bool flag);

private:
    Q_DISABLE_COPY(Configuration)

    struct Private;
    Private *const d;
};

#endif
