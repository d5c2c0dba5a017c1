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


HEAD = '<?xml version="1.0"?>\n<autopTranslator>\n<cfg>\n'
TAIL = '</cfg>\n</autopTranslator>\n'


def fill(size, out, chunk, head=HEAD, tail=TAIL):
    """Writes head, then chunk(0), chunk(1), ... until at least SIZE bytes of chunks, then tail."""
    out.write(head)
    written = 0
    n = 0
    while written < size:
        text = chunk(n)
        out.write(text)
        written += len(text)
        n += 1
    out.write(tail)


def flat_object(obj):
    head = ('<object name="obj{o}" indexMask="$i" range="0-15" path="/config/user/file{o}_$i.cfg" '
            'section="sect{o}" action=\'msgPostMessage("app",0x60001,$i,0)\'>\n').format(o=obj)
    body = ''.join((ITEM if i % 2 else ITEM_PLAIN).format(n='item_%d' % i, k='Key%dValue' % i) for i in range(12))
    return head + body + '</object>\n'


def wide_item(i):
    return ITEM_PLAIN.format(n='setting_%d' % i, k='Setting%d' % i)


def deep_tree(tree, depth=94):
    parts = []
    for level in range(depth):
        extra = ' path="/config/deep/tree%d.ini"' % tree if level == 0 else ''
        parts.append('<object name="n%d"%s section="level%d">\n' % (level, extra, level))
        parts.extend(ITEM_PLAIN.format(n='i%d' % i, k='K%d_%d' % (level, i)) for i in range(8))
    parts.append('</object>\n' * depth)
    return ''.join(parts)


def masked_tree(tree, depth=8):
    masks = ['$m%d' % level for level in range(depth)]
    parts = ['<object name="t%d" indexMask="%s" range="1-9" path="/config/m%d_%s.cfg">\n'
             % (tree, masks[0], tree, ''.join(masks))]
    for level in range(1, depth):
        parts.append('<object name="s" indexMask="%s" range="1-9" section="sec%s">\n' % (masks[level], masks[level]))
    parts.extend(ITEM_PLAIN.format(n='i%d' % i, k='K%d' % i) for i in range(40))
    parts.append('</object>\n' * depth)
    return ''.join(parts)


SHAPES = {
    'flat': lambda size, out: fill(size, out, flat_object),
    'wide': lambda size, out: fill(size, out, wide_item,
                                   HEAD + '<object name="wide" path="/config/system/wide.ini" section="Wide">\n',
                                   '</object>\n' + TAIL),
    'deep': lambda size, out: fill(size, out, deep_tree),
    'masks': lambda size, out: fill(size, out, masked_tree),
}


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
            SHAPES[shape](size, out)
    elif sys.argv[1] == 'masks':
        with open(sys.argv[3], 'w') as out:
            adjacent_masks(int(sys.argv[2]), out)
    else:
        sys.exit(__doc__)


if __name__ == '__main__':
    main()
