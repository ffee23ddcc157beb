#ifndef WORDS_H
#define WORDS_H

#include <QStringList>
#include <QVariantList>

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

#endif
