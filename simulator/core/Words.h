#ifndef WORDS_H
#define WORDS_H

#include <QJsonArray>
#include <QStringList>
#include <QVariantList>

/**
 * Cuts a control line into words as a shell does: blanks separate, single or double quotes keep
 * together. False when a quote is not closed.
 */
bool splitWords(const QString &line, QStringList *words);

/**
 * What to say of a \p word that is none of \p known: 'there is no WHAT "word"', and the nearest
 * known one when it looks like a slip.
 */
QString unknownWord(const QString &what, const QString &word, const QStringList &known);

/**
 * Values with explicit D-Bus types: s:TEXT i:NUMBER u:NUMBER b:true|false o:PATH as:A,B,C and
 * v:TYPE:VALUE. False, with \p error set, when a word is none of them.
 */
bool parseTypedArguments(const QStringList &words, QVariantList *arguments, QString *error);

/// D-Bus values, as QtDBus gives them, as JSON; variants as what they hold.
QJsonArray toJson(const QVariantList &arguments);

#endif
