"""What a reader of olefile's API sees in a compound file, as lines of text.

The same function runs with olefile and with moxolefio; the compatibility
test compares the two reports file by file.  As a script it prints the
report of each file given:

    python3 compat_report.py [--module moxolefio|olefile] FILE...
"""

import hashlib
import importlib
import sys


def _error(exc):
    # olefile raises OSError (or subclasses) for every failure; messages are
    # its own, so only the kind is compared.
    kind = 'OSError' if isinstance(exc, OSError) else type(exc).__name__
    return 'error %s' % kind


def report(module, path):
    lines = []
    try:
        ole = module.OleFileIO(path)
    except Exception as exc:  # the report records whatever the open raised
        return ['open: ' + _error(exc)]
    with ole:
        lines.append('root: %r' % ole.get_rootentry_name())
        streams = ole.listdir()
        everything = ole.listdir(streams=True, storages=True)
        lines.append('streams: %r' % streams)
        lines.append('entries: %r' % everything)
        for name in [[]] + everything:
            fields = []
            for query in ('get_type', 'get_size', 'getclsid', 'getmtime', 'getctime'):
                try:
                    value = getattr(ole, query)(name)
                except Exception as exc:
                    value = _error(exc)
                fields.append('%s=%r' % (query, value))
            lines.append('%s: %s' % ('/'.join(name), ' '.join(fields)))
        for name in streams:
            try:
                data = ole.openstream(name).read()
                digest = '%d %s' % (len(data), hashlib.sha256(data).hexdigest())
            except Exception as exc:
                digest = _error(exc)
            lines.append('sha256 %s: %s' % ('/'.join(name), digest))
    return lines


def main(argv):
    module_name = 'moxolefio'
    if len(argv) > 1 and argv[0] == '--module':
        module_name, argv = argv[1], argv[2:]
    module = importlib.import_module(module_name)
    for path in argv:
        print('== %s' % path)
        for line in report(module, path):
            print(line)


if __name__ == '__main__':
    main(sys.argv[1:])
