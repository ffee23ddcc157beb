"""What people write to the product, and what it says of that."""

import difflib
import re
from typing import Any, Iterable

INTEGERS = {"i": range(-2**31, 2**31), "u": range(2**32)}
#: Where people type something else first.
SYNONYMS = {"exit": ["quit"], "?": ["help"]}
PATH = re.compile("/|(/[A-Za-z0-9_]+)+")


class Refused(Exception):
    """What was asked for cannot be done; the text says why."""


def unknown_word(what: str, word: str, known: Iterable[str]) -> Refused:
    """Says that word is none of those that are known, and names the nearest."""
    known = list(known)
    nearest = [each for each in known if len(word) > 1 and each.startswith(word)]
    nearest = nearest or SYNONYMS.get(word) or difflib.get_close_matches(word, known, 1)
    hint = f'; did you mean "{nearest[0]}"?' if nearest else ""
    return Refused(f'there is no {what} "{word}"{hint}')


def typed(words: list[str]) -> tuple[str, list[Any]]:
    """The signature and the values of words with explicit D-Bus types: s:TEXT i:NUMBER u:NUMBER
    b:true|false o:PATH as:A,B,C and v:TYPE:VALUE."""
    pairs = [_typed(word) for word in words]
    return "".join(kind for kind, _ in pairs), [value for _, value in pairs]


def _typed(word: str) -> tuple[str, Any]:
    kind, _, text = word.partition(":")
    if kind in INTEGERS and re.fullmatch("-?[0-9]+", text) and int(text) in INTEGERS[kind]:
        return kind, int(text)
    if kind == "b" and text in ("true", "false"):
        return kind, text == "true"
    if kind == "as":
        return kind, [item for item in text.split(",") if item]
    if kind == "v":
        return kind, _typed(text)
    if kind == "s" and ":" in word or kind == "o" and PATH.fullmatch(text):
        return kind, text
    raise Refused(f'"{word}" is not TYPE:VALUE with a type of s i u b o as v')
