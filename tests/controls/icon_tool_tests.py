#!/usr/bin/python3
"""The icon generator refuses, naming the file, every icon the program's reader would
reject (the reader drops a whole collection for one such icon), and accepts the edges."""

import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True

# icon_tool_tests.py [build_icons.py [report.xml]]
TOOL = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(__file__), '..', '..', 'tools', 'icons', 'build_icons.py')
REPORT = sys.argv.pop(1) if len(sys.argv) > 1 else None


class refusals(unittest.TestCase):
    def compile(self, body, view='0 0 16 16'):
        with tempfile.TemporaryDirectory() as folder:
            source = os.path.join(folder, 'bad.icon.svg')
            with open(source, 'w', encoding='utf-8') as f:
                f.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="{view}">{body}</svg>')
            result = subprocess.run(['/usr/bin/python3', TOOL, '--output', os.path.join(folder, 'out.vicon2'), source],
                                    capture_output=True, text=True)
            return result, source

    def expect_refused(self, fragment, body, view='0 0 16 16'):
        result, source = self.compile(body, view)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(f'{source}: ', result.stderr)
        self.assertIn(fragment, result.stderr)

    def test_what_the_reader_rejects_is_refused_at_build_time(self):
        square = '<rect x="2" y="2" width="12" height="12"/>'
        self.expect_refused('the viewBox width 20000', square, '0 0 20000 16')
        self.expect_refused('the viewBox height 0.005', square, '0 0 16 0.005')
        self.expect_refused('the viewBox x 200000', square, '200000 0 16 16')
        self.expect_refused('wider than the view box', '<line x1="2" y1="2" x2="9" y2="9" stroke="red" stroke-width="17"/>')
        self.expect_refused('stroke-miterlimit 101', '<path d="M2 2 L9 9 L2 14" stroke="red" stroke-miterlimit="101"/>')
        self.expect_refused('point x = 49', '<path d="M2 2 L49 9 L2 14 Z"/>')
        self.expect_refused('point y = -33', '<g transform="translate(0 -40)"><path d="M2 7 L9 9 L2 14 Z"/></g>')

    def test_the_edges_the_reader_takes_are_accepted(self):
        ok, _ = self.compile('<path d="M-32 -32 L48 48 L2 14 Z" stroke="red" stroke-width="16" stroke-miterlimit="100"/>')
        self.assertEqual(ok.returncode, 0, ok.stderr)
        # A shape that is neither filled nor stroked is not stored, so not judged.
        hidden, _ = self.compile('<path d="M2 2 L900 9 Z" fill="none"/><rect width="4" height="4"/>')
        self.assertEqual(hidden.returncode, 0, hidden.stderr)


def main():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    result = unittest.TextTestRunner(verbosity=1).run(suite)
    if REPORT:
        os.makedirs(os.path.dirname(os.path.abspath(REPORT)), exist_ok=True)
        with open(REPORT, 'w', encoding='utf-8') as f:
            f.write(f'<?xml version="1.0" encoding="UTF-8"?>\n<testsuites name="icon_tool_tests" '
                    f'tests="{result.testsRun}" failures="{len(result.failures)}" errors="{len(result.errors)}" '
                    f'skipped="{len(result.skipped)}"/>\n')
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
