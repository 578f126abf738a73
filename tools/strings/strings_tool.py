#!/usr/bin/python3
"""String tables and language packs: the build's compiler and the translators' tool.

Commands:
  tables   English sources -> built-in table images ("STRINGS" resources), the .rc
           fragment that embeds them and a C++ header with the ids of symbolic keys.
  pack     English sources + one translation source -> <code>.<name>.<version>.lpack
  check    English sources + translation sources -> errors only
  import-corrections
           merges a corrections export (XML written by the program) into a
           translation source.

Source format (UTF-8, one entry per line, "#" starts a comment line):

  module common               the module the following entries belong to
  resource 139                (English sources) the resource id of the module's table
  "Hide disconnected"         key text, English text the same (dialog and control texts)
  "OK" = "OK"                 key text = text
  error.not_running = "..."   a symbolic key, for texts that code looks up by id
  main.columns[0] = "Device"  item 0 of an indexed list
  "Collapse all" rev 2 = ...  revision of the text (default 0); raise it when the
                              English meaning changes so that translations fall back
    + " more text"            continues the text of the previous line

Texts are double-quoted with the escapes \\n \\r \\t \\\\ \\" \\uXXXX; they are ts_printf
format strings and may hold markup ("[[[" ... "]]]"). Translation sources start with

  pack de "Deutsch"           code and display name of the pack
  language DEU                language code written into each table header
  locale de-DE                locale name written into each table header

and then hold "module" lines and entries whose keys must exist in the English sources.
A translated entry takes the revision of the English entry unless it names one itself
("rev N" records the English revision it was translated from; an older one is dropped
by the program, which then shows the English text).
"""

import argparse
import os
import re
import struct
import sys
import xml.parsers.expat

TABLE_SIGNATURE = struct.pack('<QQ', 0x43F74FBBEF132B79, 0x2999FF000C261A84)
PACK_SIGNATURE = struct.pack('<QQ', 0x4CC1A172FD275891, 0x21DD98FC4E56BA8A)
MAX_TEXT_UNITS = 0x7FFF
MAX_LIST_INDEX = 1023          # our lists are small and dense; a larger index is a typo
ENGLISH_LANGUAGE = 'ENU'
# The product title is the key of single-instance detection and the caption of every box:
# no pack may carry it (the program ignores such an entry anyway).
PRODUCT_TITLE = 'QMX Software Ulmora Tools Server'
ENGLISH_LOCALE = 'en'


class SourceError(Exception):
    def __init__(self, path, line, message):
        super().__init__(f'{path}:{line}: error: {message}')


# ---------------------------------------------------------------------------------------
# Hashing

def utf16_units(text):
    data = text.encode('utf-16-le')
    return struct.unpack(f'<{len(data) // 2}H', data)


def string_id(key):
    """32-bit FNV-1a over the low bytes of the UTF-16 units, A-Z folded, bytes sign-extended."""
    value = 0x811C9DC5
    for unit in utf16_units(key):
        byte = unit + 0x20 if 0x41 <= unit <= 0x5A else unit & 0xFF
        if byte >= 0x80:
            byte |= 0xFFFFFF00
        value = ((value ^ byte) * 0x01000193) & 0xFFFFFFFF
    return value


def module_hash(name):
    return string_id(name[name.rfind('\\') + 1:])


# ---------------------------------------------------------------------------------------
# Format strings and markup, checked the way the program reads them

class FormatError(Exception):
    pass


def compile_format(text):
    """Returns the fields of a ts_printf format string as (argument, flags) pairs.

    Mirrors the program's compiler: the same strings fail, with the same rules for
    automatic indexes, and a string that ends inside a field keeps the field."""
    fields = []
    pos = 0
    size = len(text)
    next_argument = 0
    while True:
        brace = text.find('{', pos)
        if brace < 0:
            return fields
        pos = brace + 1
        if pos == size:
            raise FormatError(f"'{{' ends the string (position {brace})")
        if text[pos] == '{':
            pos += 1
            continue
        index = next_argument
        if text[pos].isdigit() and text[pos] in '0123456789':
            index = 0
            while pos < size and text[pos] in '0123456789':
                index = min(index * 10 + int(text[pos]), 0xFFFF)
                pos += 1
        next_argument = min(index + 1, 0xFFFF)
        flags = set()
        closed = False
        while pos < size:
            letter = text[pos]
            pos += 1
            if letter == '}':
                closed = True
                break
            if letter in '+celnu':
                continue
            if letter == '?':
                if pos == size:
                    break
                if text[pos] not in '<>|':
                    raise FormatError(f"'?' must be followed by '<', '>' or '|' (position {pos})")
                flags.add('condition')
                pos += 1
            elif letter in 'af':
                if pos == size:
                    break
                pos += 1
            elif letter == 'b':
                if pos < size and text[pos] == '0':
                    pos += 1
                base = 0
                while pos < size and text[pos] in '0123456789':
                    base = min(base * 10 + int(text[pos]), 255)
                    pos += 1
                if base == 16:
                    if pos < size and text[pos] in 'xX':
                        pos += 1
                    if pos < size and text[pos] == 'p':
                        pos += 1
            elif letter == 'p':
                while pos < size and text[pos] in '0123456789':
                    pos += 1
            elif letter == 's':
                if pos < size and text[pos] == 'a':
                    pos += 1
            elif letter == 't':
                if pos == size:
                    break
                if text[pos] != '(':
                    raise FormatError(f"'t' must be followed by '(' (position {pos})")
                pos += 1
                while pos < size and text[pos] != ')':
                    if text[pos] == '}':
                        raise FormatError(f"'}}' inside a time pattern (position {pos})")
                    pos += 1
                if pos == size:
                    break
                pos += 1
            elif letter == 'w':
                def digits(at):
                    while at < size and text[at] in '0123456789':
                        at += 1
                    return at
                if pos < size and text[pos] == ',':
                    pos = digits(pos + 1)
                else:
                    pos = digits(pos)
                    if pos < size and text[pos] == ',':
                        pos = digits(pos + 1)
            else:
                raise FormatError(f"unknown letter {letter!r} in a field (position {pos - 1})")
        fields.append((index, frozenset(flags)))
        if not closed:
            return fields


def check_markup(text):
    """Raises FormatError unless every "[[[" element is closed and no "]]]" is stray."""
    depth = 0
    pos = 0
    while True:
        opener = text.find('[[[', pos)
        closer = text.find(']]]', pos)
        if opener < 0 and closer < 0:
            break
        if closer >= 0 and (opener < 0 or closer < opener):
            if depth == 0:
                raise FormatError(f"']]]' closes no element (position {closer})")
            depth -= 1
            pos = closer + 3
        else:
            if opener + 3 >= len(text):
                raise FormatError(f"'[[[' without a tag letter (position {opener})")
            depth += 1
            pos = opener + 4
    if depth:
        raise FormatError(f'{depth} markup element(s) not closed with "]]]"')


def argument_indexes(text):
    return {index for index, _ in compile_format(text)}


def value_indexes(text):
    """Arguments the text shows (conditional markers only test theirs: a language without
    plural forms may drop them)."""
    return {index for index, flags in compile_format(text) if 'condition' not in flags}


# ---------------------------------------------------------------------------------------
# Sources

ESCAPES = {'n': '\n', 'r': '\r', 't': '\t', '\\': '\\', '"': '"'}
KEY_RE = re.compile(r'[A-Za-z_][A-Za-z0-9_.\-]*')


class Entry:
    def __init__(self, key, line):
        self.key = key
        self.line = line
        self.quoted = True
        self.revision = None       # None: not given
        self.text = None           # single string
        self.items = None          # {index: (text, line)} for indexed lists
        self.last_item = None


class Module:
    def __init__(self, name, line):
        self.name = name
        self.line = line
        self.resource = None
        self.entries = {}          # key -> Entry, in source order


class Source:
    def __init__(self, path):
        self.path = path
        self.modules = {}
        self.code = None
        self.display_name = None
        self.language = None
        self.locale = None
        self.lines = []


class Scanner:
    def __init__(self, path, number, text):
        self.path = path
        self.line_number = number
        self.text = text
        self.pos = 0

    def fail(self, message):
        raise SourceError(self.path, self.line_number, message)

    def skip_blanks(self):
        while self.pos < len(self.text) and self.text[self.pos] in ' \t':
            self.pos += 1

    def at_end(self):
        self.skip_blanks()
        return self.pos >= len(self.text) or self.text[self.pos] == '#'

    def peek(self, token):
        self.skip_blanks()
        return self.text.startswith(token, self.pos)

    def expect(self, token):
        if not self.peek(token):
            self.fail(f'expected {token!r}')
        self.pos += len(token)

    def word(self):
        self.skip_blanks()
        match = re.compile(r'[^\s#]+').match(self.text, self.pos)
        if not match:
            self.fail('expected a word')
        self.pos = match.end()
        return match.group(0)

    def number(self):
        self.skip_blanks()
        match = re.compile(r'[0-9]+').match(self.text, self.pos)
        if not match:
            self.fail(f'expected a number, found {self.text[self.pos:self.pos + 10]!r}')
        self.pos = match.end()
        return int(match.group(0))

    def string(self):
        self.skip_blanks()
        if self.pos >= len(self.text) or self.text[self.pos] != '"':
            self.fail('expected a quoted text')
        self.pos += 1
        out = []
        while True:
            if self.pos >= len(self.text):
                self.fail('text not closed with "')
            ch = self.text[self.pos]
            self.pos += 1
            if ch == '"':
                return ''.join(out)
            if ch != '\\':
                out.append(ch)
                continue
            if self.pos >= len(self.text):
                self.fail('text not closed with "')
            esc = self.text[self.pos]
            self.pos += 1
            if esc in ESCAPES:
                out.append(ESCAPES[esc])
            elif esc == 'u' and re.fullmatch(r'[0-9A-Fa-f]{4}', self.text[self.pos:self.pos + 4]):
                out.append(chr(int(self.text[self.pos:self.pos + 4], 16)))
                self.pos += 4
            else:
                self.fail(f'unknown escape \\{esc}')

    def key(self):
        self.skip_blanks()
        if self.peek('"'):
            return self.string(), True
        match = KEY_RE.match(self.text, self.pos)
        if not match:
            self.fail('expected a key: a quoted text or a name such as error.not_running')
        self.pos = match.end()
        return match.group(0), False


def parse_source(path, translation):
    source = Source(path)
    module = None
    last = None
    try:
        with open(path, encoding='utf-8') as f:
            lines = f.read().split('\n')
    except OSError as e:
        raise SourceError(path, 0, f'cannot read: {e.strerror}')
    except UnicodeDecodeError:
        raise SourceError(path, 0, 'not UTF-8 text')
    source.lines = lines
    for number, line in enumerate(lines, 1):
        if line.startswith('\ufeff'):
            line = line[1:]
        s = Scanner(path, number, line)
        if s.at_end():
            continue
        if s.peek('+'):
            s.expect('+')
            if last is None:
                s.fail('"+" continues no entry')
            text = s.string()
            if not s.at_end():
                s.fail('unexpected text after the continued text')
            entry, index = last
            if index is None:
                entry.text += text
            else:
                old, line_no = entry.items[index]
                entry.items[index] = (old + text, line_no)
            continue
        last = None
        directive = re.compile(r'(module|resource|pack|language|locale)\b').match(line, s.pos)
        if directive:
            s.pos = directive.end()
            word = directive.group(1)
            if word == 'module':
                name = s.word()
                if name in source.modules:
                    s.fail(f'module {name} appears twice')
                module = source.modules[name] = Module(name, number)
            elif word == 'resource':
                if translation:
                    s.fail('"resource" belongs in English sources')
                if module is None:
                    s.fail('"resource" before "module"')
                module.resource = s.number()
            elif not translation:
                s.fail(f'"{word}" belongs in translation sources')
            elif word == 'pack':
                source.code = s.word()
                source.display_name = s.string()
            elif word == 'language':
                source.language = s.word()
            else:
                source.locale = s.word()
            if not s.at_end():
                s.fail('unexpected text after the directive')
            continue
        if module is None:
            s.fail('entry before the first "module" line')
        key, quoted = s.key()
        index = None
        if s.peek('['):
            s.expect('[')
            index = s.number()
            s.expect(']')
            if index > MAX_LIST_INDEX:
                s.fail(f'list index {index} is larger than {MAX_LIST_INDEX}')
        revision = None
        if re.compile(r'\s*rev\b').match(line, s.pos):
            s.word()
            revision = s.number()
            if revision >= 1 << 30:
                s.fail('revision does not fit in 30 bits')
        if s.peek('='):
            s.expect('=')
            text = s.string()
        elif quoted and not translation and index is None:
            text = key
        else:
            s.fail('expected "=" and the text')
        if not s.at_end():
            s.fail('unexpected text after the entry')
        if len(utf16_units(text)) > MAX_TEXT_UNITS:
            s.fail(f'text longer than {MAX_TEXT_UNITS} UTF-16 units')
        entry = module.entries.get(key)
        if entry is None:
            entry = module.entries[key] = Entry(key, number)
            entry.quoted = quoted
        elif index is None or entry.items is None:
            s.fail(f'duplicate key {key!r} (first at line {entry.line})')
        elif index in entry.items:
            s.fail(f'duplicate item {key}[{index}] (first at line {entry.items[index][1]})')
        if index is None:
            entry.text = text
        else:
            if entry.items is None:
                entry.items = {}
            entry.items[index] = (text, number)
        if revision is not None:
            if entry.revision is not None and entry.revision != revision:
                s.fail(f'items of {key!r} name different revisions')
            entry.revision = revision
        last = (entry, index)
    if translation:
        for field, what in ((source.code, 'pack'), (source.language, 'language'), (source.locale, 'locale')):
            if field is None:
                raise SourceError(path, 1, f'missing "{what}" line')
        for part, what in ((source.code, 'code'), (source.display_name, 'display name')):
            if not part or re.search(r'[.\\/:*?"<>|\x00-\x1f]', part):
                raise SourceError(path, 1, f'pack {what} {part!r} cannot be part of a file name')
    return source


def check_text(path, line, text, english=None):
    """Format and markup checks; with english, also the placeholders it uses."""
    try:
        indexes = argument_indexes(text)
        check_markup(text)
    except FormatError as e:
        raise SourceError(path, line, f'{e} in {text!r}')
    if english is not None:
        missing = sorted(value_indexes(english) - indexes)
        if missing:
            raise SourceError(path, line, 'placeholder(s) ' + ', '.join(f'{{{i}}}' for i in missing) +
                              f' of the English text missing in {text!r}')


def load_english(paths):
    modules = {}
    for path in paths:
        source = parse_source(path, translation=False)
        for module in source.modules.values():
            if module.name in modules:
                raise SourceError(path, module.line, f'module {module.name} is also defined elsewhere')
            if module.resource is None:
                raise SourceError(path, module.line, f'module {module.name} has no "resource" line')
            for entry in module.entries.values():
                for text, line in entry_texts(entry):
                    check_text(path, line, text)
            check_ids(path, module)
            module.path = path
            modules[module.name] = module
    return modules


def entry_texts(entry):
    if entry.items is None:
        return [(entry.text, entry.line)]
    return [entry.items[i] for i in sorted(entry.items)]


def check_ids(path, module):
    seen = {}
    for entry in module.entries.values():
        ident = string_id(entry.key)
        if ident in seen:
            raise SourceError(path, entry.line, f'key {entry.key!r} has the same id 0x{ident:08X} '
                              f'as {seen[ident].key!r} (line {seen[ident].line}); choose another key')
        seen[ident] = entry


def check_translation(english, translation, require_complete=False):
    for module in translation.modules.values():
        source = english.get(module.name)
        if source is None:
            raise SourceError(translation.path, module.line, f'unknown module {module.name}')
        for entry in module.entries.values():
            original = source.entries.get(entry.key)
            if original is None:
                raise SourceError(translation.path, entry.line, f'unknown key {entry.key!r}')
            if entry.key == PRODUCT_TITLE:
                raise SourceError(translation.path, entry.line,
                                  'the product title is never translated (a second start finds the program by it)')
            if (entry.items is None) != (original.items is None):
                kind = 'an indexed list' if original.items is not None else 'a single text'
                raise SourceError(translation.path, entry.line, f'{entry.key!r} is {kind} in English')
            if entry.items is None:
                check_text(translation.path, entry.line, entry.text, original.text)
            else:
                for index, (text, line) in entry.items.items():
                    if index not in original.items:
                        raise SourceError(translation.path, line, f'unknown item {entry.key}[{index}]')
                    check_text(translation.path, line, text, original.items[index][0])
            if entry.revision is not None and entry.revision > (original.revision or 0):
                raise SourceError(translation.path, entry.line,
                                  f'revision {entry.revision} is newer than the English one')
    if require_complete:
        for source in english.values():
            module = translation.modules.get(source.name)
            for entry in source.entries.values():
                if entry.key == PRODUCT_TITLE:
                    continue
                done = module.entries.get(entry.key) if module else None
                if done is None or (entry.items is not None and set(done.items) != set(entry.items)):
                    raise SourceError(translation.path, module.line if module else 1,
                                      f'no translation of {entry.key!r} ({source.name})')


# ---------------------------------------------------------------------------------------
# Binary images

def encode_narrow(text):
    data = text.encode('ascii')
    return struct.pack('<h', len(data)) + data + b'\0'


def encode_wide(text):
    data = text.encode('utf-16-le')
    return struct.pack('<h', len(data) // 2) + data + b'\0\0'


def table_image(entries, language, locale, with_signature):
    """entries: (key, revision, text or {index: text}). Texts land at even offsets."""
    head = bytearray(TABLE_SIGNATURE if with_signature else b'')
    head += encode_narrow(language) + encode_narrow(locale)
    reserved = 2 if (len(head) + 1 + 2 + 4) % 2 == 0 else 3
    head += bytes([reserved]) + bytes(reserved)
    head += struct.pack('<I', len(entries))
    for key, revision, body in entries:
        if isinstance(body, dict):
            head += struct.pack('<III', string_id(key), (revision << 2) | 1, len(body))
            for index in sorted(body):
                head += struct.pack('<I', index) + encode_wide(body[index])
        else:
            head += struct.pack('<II', string_id(key), revision << 2) + encode_wide(body)
    return bytes(head)


def english_entries(module):
    out = []
    for entry in module.entries.values():
        body = entry.text if entry.items is None else {i: t for i, (t, _) in entry.items.items()}
        out.append((entry.key, entry.revision or 0, body))
    return out


def translated_entries(source_module, module):
    out = []
    for entry in module.entries.values():
        original = source_module.entries[entry.key]
        revision = entry.revision if entry.revision is not None else (original.revision or 0)
        body = entry.text if entry.items is None else {i: t for i, (t, _) in entry.items.items()}
        out.append((entry.key, revision, body))
    return out


def pack_image(tables):
    """tables: {module name: table image without signature}."""
    ordered = sorted(tables.items(), key=lambda item: module_hash(item[0]))
    offset = 20 + 8 * len(ordered)
    directory = bytearray()
    body = bytearray()
    for name, image in ordered:
        while (offset + len(body)) % 4:
            body += b'\0'
        directory += struct.pack('<Ii', module_hash(name), offset + len(body))
        body += image
    return PACK_SIGNATURE + struct.pack('<I', len(ordered)) + bytes(directory) + bytes(body)


def write_if_changed(path, data):
    if isinstance(data, str):
        data = data.encode('utf-8')
    try:
        with open(path, 'rb') as f:
            if f.read() == data:
                return
    except OSError:
        pass
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    with open(path, 'wb') as f:
        f.write(data)


def cpp_identifier(key):
    return re.sub(r'[^A-Za-z0-9_]', '_', key)


def command_tables(args):
    modules = load_english(args.english)
    rc = ['// Generated by tools/strings/strings_tool.py: the built-in English string tables.']
    header = ['#pragma once',
              '// Generated by tools/strings/strings_tool.py from res/strings: ids of the texts that',
              '// code looks up by symbolic key. Dialog and control texts are looked up by their',
              '// English text instead.',
              '#include <cstdint>', '', f'namespace {args.namespace} {{']
    for module in modules.values():
        image = table_image(english_entries(module), ENGLISH_LANGUAGE, ENGLISH_LOCALE, True)
        image_path = os.path.join(args.out_dir, f'{module.resource}.strtbl')
        write_if_changed(image_path, image)
        rc.append(f'{module.resource} STRINGS "{os.path.abspath(image_path)}"')
        header.append(f'// module "{module.name}" (resource {module.resource})')
        for entry in module.entries.values():
            if not entry.quoted:
                header.append(f'inline constexpr std::uint32_t {cpp_identifier(entry.key)} = 0x{string_id(entry.key):08X};')
    header += [f'}}  // namespace {args.namespace}', '']
    write_if_changed(args.rc, '\n'.join(rc) + '\n')
    if args.header:
        write_if_changed(args.header, '\n'.join(header))


def command_pack(args):
    english = load_english(args.english)
    translation = parse_source(args.translation, translation=True)
    check_translation(english, translation, args.require_complete)
    tables = {}
    for module in translation.modules.values():
        entries = translated_entries(english[module.name], module)
        tables[module.name] = table_image(entries, translation.language, translation.locale, False)
    name = f'{translation.code}.{translation.display_name}.{args.version}.lpack'
    os.makedirs(args.out_dir, exist_ok=True)
    write_if_changed(os.path.join(args.out_dir, name), pack_image(tables))
    if args.stamp:
        write_if_changed(args.stamp, name + '\n')


def command_check(args):
    english = load_english(args.english)
    for path in args.translation:
        check_translation(english, parse_source(path, translation=True), args.require_complete)


# ---------------------------------------------------------------------------------------
# Corrections

def unescape_correction(text):
    r"""Undoes the program's extra escaping (\r \n \t); XML entities are already decoded."""
    out = []
    i = 0
    while i < len(text):
        if text[i] == '\\' and i + 1 < len(text) and text[i + 1] in 'rnt':
            out.append({'r': '\r', 'n': '\n', 't': '\t'}[text[i + 1]])
            i += 2
        else:
            out.append(text[i])
            i += 1
    return ''.join(out)


def read_corrections(path):
    """Returns [(module name, key, text)]. The program writes "<" and ">" unescaped inside
    attribute values, which strict XML forbids, so they are escaped before parsing."""
    with open(path, 'rb') as f:
        raw = f.read().decode('utf-8')
    raw = re.sub(r'"([^"]*)"', lambda m: '"' + m.group(1).replace('<', '&lt;').replace('>', '&gt;') + '"', raw)
    result = []
    module = [None]

    def start(tag, attributes):
        if tag == 'Module':
            module[0] = attributes.get('name')
        elif tag == 'String':
            if module[0] is None or 'id' not in attributes or 'value' not in attributes:
                raise SourceError(path, parser.CurrentLineNumber, '<String> needs id, value and a <Module>')
            result.append((module[0], unescape_correction(attributes['id']),
                           unescape_correction(attributes['value']), parser.CurrentLineNumber))
        elif tag != 'Corrections':
            raise SourceError(path, parser.CurrentLineNumber, f'unexpected element <{tag}>')

    parser = xml.parsers.expat.ParserCreate('utf-8')
    parser.StartElementHandler = start
    try:
        parser.Parse(raw.encode('utf-8'), True)
    except xml.parsers.expat.ExpatError as e:
        raise SourceError(path, e.lineno, f'not a corrections export: {xml.parsers.expat.ErrorString(e.code)}')
    return result


def quote(text):
    out = ['"']
    for ch in text:
        if ch in '\\"':
            out.append('\\' + ch)
        elif ch == '\n':
            out.append('\\n')
        elif ch == '\r':
            out.append('\\r')
        elif ch == '\t':
            out.append('\\t')
        elif ord(ch) < 0x20:
            out.append(f'\\u{ord(ch):04X}')
        else:
            out.append(ch)
    return ''.join(out) + '"'


def format_key(key):
    return key if KEY_RE.fullmatch(key) else quote(key)


def command_import(args):
    english = load_english(args.english)
    translation = parse_source(args.translation, translation=True)
    lines = list(translation.lines)
    appended = {}
    replacements = {}
    for corrections_path in args.corrections:
        for module_name, key, text, line in read_corrections(corrections_path):
            source = english.get(module_name)
            if source is None:
                raise SourceError(corrections_path, line, f'unknown module {module_name}')
            original = source.entries.get(key)
            if original is None or original.items is not None:
                raise SourceError(corrections_path, line, f'unknown key {key!r} (only single texts can be corrected)')
            check_text(corrections_path, line, text, original.text)
            module = translation.modules.get(module_name)
            entry = module.entries.get(key) if module else None
            new_line = f'{format_key(key)} = {quote(text)}'
            if entry is not None:
                replacements[entry.line] = new_line
            else:
                appended.setdefault(module_name, {})[key] = new_line
    def end_of_entry(line_no):
        # Continuation lines belong to the entry above them.
        while line_no < len(lines) and lines[line_no].lstrip().startswith('+'):
            line_no += 1
        return line_no

    removed = set()
    for line_no in replacements:
        removed.update(range(line_no + 1, end_of_entry(line_no) + 1))
    insert_after = {}
    tail = []
    for module_name, entries in appended.items():
        module = translation.modules.get(module_name)
        if module is None:
            tail += ['', f'module {module_name}'] + list(entries.values())
            continue
        last = max([module.line] + [entry.line for entry in module.entries.values()] +
                   [line for entry in module.entries.values() for _, line in (entry.items or {}).values()])
        insert_after.setdefault(end_of_entry(last), []).extend(entries.values())
    result = []
    for line_no, line in enumerate(lines, 1):
        if line_no not in removed:
            result.append(replacements.get(line_no, line))
        result += insert_after.get(line_no, [])
    while result and result[-1] == '':
        result.pop()
    lines = result + tail
    write_if_changed(args.translation, '\n'.join(lines) + '\n')
    # What was written must still be a valid translation.
    check_translation(english, parse_source(args.translation, translation=True))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    commands = parser.add_subparsers(dest='command', required=True)

    tables = commands.add_parser('tables')
    tables.add_argument('--english', action='append', required=True)
    tables.add_argument('--out-dir', required=True)
    tables.add_argument('--rc', required=True)
    tables.add_argument('--header')
    # A program with tables of its own (a second executable) names its ids apart, so that
    # its header and the main one can meet in one translation unit.
    tables.add_argument('--namespace', default='tessel::string_ids')
    tables.set_defaults(run=command_tables)

    pack = commands.add_parser('pack')
    pack.add_argument('--english', action='append', required=True)
    pack.add_argument('--translation', required=True)
    pack.add_argument('--version', required=True, type=int)
    pack.add_argument('--out-dir', required=True)
    pack.add_argument('--require-complete', action='store_true')
    pack.add_argument('--stamp')
    pack.set_defaults(run=command_pack)

    check = commands.add_parser('check')
    check.add_argument('--english', action='append', required=True)
    check.add_argument('--translation', action='append', default=[])
    check.add_argument('--require-complete', action='store_true')
    check.set_defaults(run=command_check)

    imports = commands.add_parser('import-corrections')
    imports.add_argument('--english', action='append', required=True)
    imports.add_argument('--translation', required=True)
    imports.add_argument('corrections', nargs='+')
    imports.set_defaults(run=command_import)

    args = parser.parse_args(argv)
    try:
        args.run(args)
    except SourceError as e:
        print(e, file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
