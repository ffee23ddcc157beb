#ifndef STORE_H
#define STORE_H

#include <QJsonObject>
#include <QString>

struct Options;

/**
 * What is remembered over a restart: one JSON file per subject in the folder that the options name,
 * which for the daemon stands for its storage on the board's flash, for the phones for their own.
 */
class Store
{
public:
    explicit Store(const Options *options);

    /// The content of \p subject; empty when there is none yet.
    QJsonObject read(const QString &subject) const;
    /// Replaces the content of \p subject; a folder that cannot be written only costs the memory.
    void write(const QString &subject, const QJsonObject &content) const;

private:
    QString file(const QString &subject) const;

    const Options *m_options;
};

#endif
