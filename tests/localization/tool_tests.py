#!/usr/bin/python3
"""Checks of the strings tool: translators' mistakes are refused with file:line messages,
format strings are judged the way the program compiles them, and corrections exported by
the program come back into the translation sources."""

import importlib.util
import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # no __pycache__ beside the tool in the source tree

# tool_tests.py [strings_tool.py [report.xml]]: the report, in the form the test
# harness counts (a <testsuites> element with tests, failures and errors), is optional.
TOOL = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(__file__), '..', '..', 'tools', 'strings', 'strings_tool.py')
REPORT = sys.argv.pop(1) if len(sys.argv) > 1 else None
spec = importlib.util.spec_from_file_location('strings_tool', TOOL)
tool = importlib.util.module_from_spec(spec)
spec.loader.exec_module(tool)

ENGLISH = '''module common
resource 139
"OK"
"Collapse all" rev 1
greeting = "Hello {0}, {1} new {2?<}message{2?|}messages{2?>}"
styled = "[[[b{0}]]] and [[[T#[#777]#grey]]]"
columns[0] = "Device"
columns[1] = "Client"
"QMX Software Ulmora Tools Server"
'''

HEADER = 'pack xx "Test"\nlanguage XXX\nlocale xx-XX\nmodule common\n'


class tool_case(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.english = self.write('common.en.txt', ENGLISH)

    def tearDown(self):
        self.folder.cleanup()

    def write(self, name, text):
        path = os.path.join(self.folder.name, name)
        with open(path, 'w', encoding='utf-8') as f:
            f.write(text)
        return path

    def run_tool(self, *args):
        return subprocess.run(['/usr/bin/python3', TOOL, *args], capture_output=True, text=True)

    def pack(self, translation_body, *extra):
        path = self.write('xx.txt', HEADER + translation_body)
        return self.run_tool('pack', '--english', self.english, '--translation', path, '--version', '100000000',
                             '--out-dir', self.folder.name, *extra), path


class bad_translations(tool_case):
    def expect_error(self, body, line, fragment):
        result, path = self.pack(body)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(f'{path}:{line}: error:', result.stderr)
        self.assertIn(fragment, result.stderr)

    def test_each_mistake_is_named_with_file_and_line(self):
        self.expect_error('"OK" = "Okay"\n"Missing" = "x"\n', 6, "unknown key 'Missing'")
        self.expect_error('"OK" = "Okay"\n"OK" = "Okay"\n', 6, "duplicate key 'OK' (first at line 5)")
        self.expect_error('columns[0] = "a"\ncolumns[0] = "b"\n', 6, 'duplicate item columns[0]')
        self.expect_error('columns[7] = "x"\n', 5, 'unknown item columns[7]')
        self.expect_error('greeting = "Hi {0} {1}{2?<}x{2?!}"\n', 5, "'?' must be followed by")
        self.expect_error('greeting = "Hi {0} {1} {2?<}{2?>} {"\n', 5, "'{' ends the string")
        self.expect_error('greeting = "Hi {0} {1} {2?<}{2?>} {3q}"\n', 5, 'unknown letter')
        self.expect_error('greeting = "Hi {0} {1} {2?<}{2?>} {3t(%H}"\n', 5, 'inside a time pattern')
        self.expect_error('greeting = "Hi {0} {1} {2?<}{2?>} {3tx}"\n', 5, "'t' must be followed by '('")
        self.expect_error('greeting = "Hi {0}, {2?<}one{2?|}many{2?>}"\n', 5, 'placeholder(s) {1}')
        self.expect_error('greeting = "Hi"\n', 5, 'placeholder(s) {0}, {1}')
        self.expect_error('styled = "[[[b{0}]]] and [[[T#[#777]#grau"\n', 5, 'not closed')
        self.expect_error('styled = "{0}]]] grau"\n', 5, "']]]' closes no element")
        self.expect_error('styled = "{0} [[["\n', 5, 'without a tag letter')
        self.expect_error('"OK" = "unterminated\n', 5, 'not closed with "')
        self.expect_error('"OK" = "bad \\q escape"\n', 5, 'unknown escape')
        self.expect_error('columns = "x"\n', 5, 'is an indexed list in English')
        self.expect_error('"Collapse all" rev 2 = "x"\n', 5, 'newer than the English one')
        self.expect_error('"QMX Software Ulmora Tools Server" = "QMX Software Ulmora Tools Server"\n', 5,
                          'the product title is never translated')

    def test_conditionals_may_be_dropped_and_placeholders_reordered(self):
        result, _ = self.pack('greeting = "{1} neue Nachrichten f\u00FCr {0}"\n')
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_header_and_completeness(self):
        path = self.write('bad.txt', 'pack x.y "Test"\nlanguage XXX\nlocale xx\nmodule common\n')
        result = self.run_tool('check', '--english', self.english, '--translation', path)
        self.assertIn('cannot be part of a file name', result.stderr)
        result, _ = self.pack('"OK" = "Okay"\n', '--require-complete')
        self.assertEqual(result.returncode, 1)
        self.assertIn("no translation of 'Collapse all'", result.stderr)

    def test_english_sources_are_checked_too(self):
        self.english = self.write('bad.en.txt', 'module common\nresource 139\nx = "{0?x}"\n')
        result, _ = self.pack('')
        self.assertIn('bad.en.txt:3: error:', result.stderr)


class formats_and_ids(unittest.TestCase):
    def test_compiler_accepts_what_the_program_accepts(self):
        for text in ['{0}{1}', '{0arf0w5}', '{1ub016x}', '{}', '{0}{2?<}@{1}{2?>}', '{0}.{1t(%Y%m%d-%H%M%S)}.xml',
                     '[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3}', '{{0}', '}', '{0aq}', '{0w5,20}', '{0b16Xp}', '{0f',
                     '{0t(%H', '{0?', '{0sa}{1n}{2+ec}']:
            tool.compile_format(text)
        for text in ['{', 'x{', '{0?x}', '{0z}', '{0t}', '{0t(}x)}', '{0w5,20,3}', '{0!}']:
            with self.assertRaises(tool.FormatError, msg=text):
                tool.compile_format(text)
        self.assertEqual(tool.argument_indexes('{}{}{5}{}'), {0, 1, 5, 6})
        self.assertEqual(tool.argument_indexes('{{0}'), set())

    def test_markup_balance(self):
        for text in ['abc', '[[[bBold]]] text', '[[[H[[[r:{}: ]]]]]]', '[[[v#[a]# ]]] {1}', '[[[w:300:[[[bX]]]]]]']:
            tool.check_markup(text)
        for text in [']]]', '[[[b', '[[[', 'x [[[bA]]] ]]]']:
            with self.assertRaises(tool.FormatError, msg=text):
                tool.check_markup(text)

    def test_hashes(self):
        # The same values as the program's own hashing.
        self.assertEqual(tool.string_id('Hide disconnected'), 0x19E65AA4)
        self.assertEqual(tool.module_hash('common'), 0x4D5B0474)
        self.assertEqual(tool.module_hash('x\\y\\Common'), 0x4D5B0474)
        self.assertEqual(tool.string_id('\u0141'), tool.string_id('\u0241'))
        self.assertNotEqual(tool.string_id('\u0141'), tool.string_id('A'))


class images(tool_case):
    def test_built_in_tables(self):
        out = os.path.join(self.folder.name, 'out')
        result = self.run_tool('tables', '--english', self.english, '--out-dir', out, '--rc', os.path.join(out, 'x.rc'),
                               '--header', os.path.join(out, 'ids.h'))
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(os.path.join(out, '139.strtbl'), 'rb') as f:
            data = f.read()
        self.assertEqual(data[:16], tool.TABLE_SIGNATURE)
        with open(os.path.join(out, 'x.rc')) as f:
            self.assertIn('139 STRINGS "', f.read())
        with open(os.path.join(out, 'ids.h')) as f:
            header = f.read()
        self.assertIn(f'greeting = 0x{tool.string_id("greeting"):08X};', header)
        self.assertNotIn(' OK = ', header)


class corrections(tool_case):
    def test_import_updates_and_adds_entries(self):
        _, path = self.pack('"OK" = "Okay"\ngreeting = "Hallo {0}, {1} "\n    + "neue {2?<}Nachricht{2?|}Nachrichten{2?>}"\n')
        export = self.write('fix.20250102-030405.xml',
                            '<?xml version="1.0" encoding="utf-8"?>\r\n<Corrections>\r\n'
                            '  <Module name="common">\r\n'
                            '    <String id="greeting" value="Hi {0}:\\n{1} &amp; {2?<}<b>{2?>}"/>\r\n'
                            '    <String id="Collapse all" value="Alles &quot;zu&quot;"/>\r\n'
                            '</Module>\r\n</Corrections>\r\n')
        result = self.run_tool('import-corrections', '--english', self.english, '--translation', path, export)
        self.assertEqual(result.returncode, 0, result.stderr)
        source = tool.parse_source(path, translation=True)
        entries = source.modules['common'].entries
        self.assertEqual(entries['greeting'].text, 'Hi {0}:\n{1} & {2?<}<b>{2?>}')
        self.assertEqual(entries['Collapse all'].text, 'Alles "zu"')
        self.assertEqual(entries['OK'].text, 'Okay')

    def test_import_refuses_bad_corrections(self):
        _, path = self.pack('"OK" = "Okay"\n')
        export = self.write('bad.xml', '<Corrections>\n  <Module name="common">\n'
                                       '    <String id="greeting" value="no placeholders"/>\n</Module>\n</Corrections>\n')
        result = self.run_tool('import-corrections', '--english', self.english, '--translation', path, export)
        self.assertEqual(result.returncode, 1)
        self.assertIn('bad.xml:3: error: placeholder(s)', result.stderr)


def main():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    result = unittest.TextTestRunner(verbosity=1).run(suite)
    if REPORT:
        os.makedirs(os.path.dirname(os.path.abspath(REPORT)), exist_ok=True)
        with open(REPORT, 'w', encoding='utf-8') as f:
            f.write(f'<?xml version="1.0" encoding="UTF-8"?>\n<testsuites name="localization_tool_tests" '
                    f'tests="{result.testsRun}" failures="{len(result.failures)}" errors="{len(result.errors)}" '
                    f'skipped="{len(result.skipped)}"/>\n')
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
