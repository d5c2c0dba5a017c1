#!/usr/bin/env python3
"""Writes a translation table of about SIZE bytes in one of four shapes, or a table whose one object
path holds N adjacent index masks.

  translation_table.py table SHAPE SIZE OUT   shapes: flat, wide, deep, masks
  translation_table.py masks N OUT

flat:  many small objects, a handful of items each, like the phone's own table;
wide:  one object holding every item;
deep:  objects nested 94 deep, the items spread over the levels;
masks: numbered objects nested 8 deep whose masks all stand side by side in the path.
"""
import sys

ITEM = '<item name="{n}" key="{k}" valueType="boolean" range="0-1"/>\n'
ITEM_PLAIN = '<item name="{n}" key="{k}"/>\n'


def flat(size, out):
    written = 0
    obj = 0
    out.write('<?xml version="1.0"?>\n<autopTranslator>\n<cfg>\n')
    while written < size:
        head = ('<object name="obj{o}" indexMask="$i" range="0-15" path="/config/user/file{o}_$i.cfg" '
                'section="sect{o}" action=\'msgPostMessage("app",0x60001,$i,0)\'>\n').format(o=obj)
        body = ''.join((ITEM if i % 2 else ITEM_PLAIN).format(n='item_%d' % i, k='Key%dValue' % i)
                       for i in range(12))
        chunk = head + body + '</object>\n'
        out.write(chunk)
        written += len(chunk)
        obj += 1
    out.write('</cfg>\n</autopTranslator>\n')


def wide(size, out):
    out.write('<?xml version="1.0"?>\n<autopTranslator>\n<cfg>\n'
              '<object name="wide" path="/config/system/wide.ini" section="Wide">\n')
    written = 0
    i = 0
    while written < size:
        line = ITEM_PLAIN.format(n='setting_%d' % i, k='Setting%d' % i)
        out.write(line)
        written += len(line)
        i += 1
    out.write('</object>\n</cfg>\n</autopTranslator>\n')


def deep(size, out, depth=94):
    out.write('<?xml version="1.0"?>\n<autopTranslator>\n<cfg>\n')
    written = 0
    tree = 0
    while written < size:
        parts = []
        for level in range(depth):
            extra = ' path="/config/deep/tree%d.ini"' % tree if level == 0 else ''
            parts.append('<object name="n%d"%s section="level%d">\n' % (level, extra, level))
            parts.extend(ITEM_PLAIN.format(n='i%d' % i, k='K%d_%d' % (level, i)) for i in range(8))
        parts.append('</object>\n' * depth)
        chunk = ''.join(parts)
        out.write(chunk)
        written += len(chunk)
        tree += 1
    out.write('</cfg>\n</autopTranslator>\n')


def masked(size, out, depth=8):
    out.write('<?xml version="1.0"?>\n<autopTranslator>\n<cfg>\n')
    written = 0
    tree = 0
    masks = ['$m%d' % level for level in range(depth)]
    while written < size:
        parts = ['<object name="t%d" indexMask="%s" range="1-9" path="/config/m%d_%s.cfg">\n'
                 % (tree, masks[0], tree, ''.join(masks))]
        for level in range(1, depth):
            parts.append('<object name="s" indexMask="%s" range="1-9" section="sec%s">\n' % (masks[level], masks[level]))
        parts.extend(ITEM_PLAIN.format(n='i%d' % i, k='K%d' % i) for i in range(40))
        parts.append('</object>\n' * depth)
        chunk = ''.join(parts)
        out.write(chunk)
        written += len(chunk)
        tree += 1
    out.write('</cfg>\n</autopTranslator>\n')


def adjacent_masks(count, out):
    """One object per level, all masks side by side in the outermost path and nowhere else."""
    masks = ['$m%d' % level for level in range(count)]
    out.write('<autopTranslator><cfg>\n')
    out.write('<object name="o0" indexMask="%s" path="/config/x%s.cfg" section="s">\n' % (masks[0], ''.join(masks)))
    for level in range(1, count):
        out.write('<object name="o%d" indexMask="%s">\n' % (level, masks[level]))
    out.write('<item name="v" key="K"/>\n')
    out.write('</object>\n' * count)
    out.write('</cfg></autopTranslator>\n')


def main():
    if sys.argv[1] == 'table':
        shape, size, path = sys.argv[2], int(sys.argv[3]), sys.argv[4]
        with open(path, 'w') as out:
            {'flat': flat, 'wide': wide, 'deep': deep, 'masks': masked}[shape](size, out)
    elif sys.argv[1] == 'masks':
        with open(sys.argv[3], 'w') as out:
            adjacent_masks(int(sys.argv[2]), out)
    else:
        sys.exit(__doc__)


if __name__ == '__main__':
    main()
