"""The faults in what is computed: comparisons, conditions, constants, operands, arguments."""
import re

from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

from .syntax import FUNCTIONS, LOOPS

BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPPOSITE = {"<": ">=", "<=": ">", ">": "<=", ">=": "<", "==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<",
              "&": "|", "|": "&", "^": "&", "+=": "-=", "-=": "+=", "*=": "+=", "|=": "=",
              "&=": "=", "^=": "="}
SIXTY_FOUR_BITS = {TypeKind.ULONG, TypeKind.ULONGLONG, TypeKind.LONG, TypeKind.LONGLONG}
THIRTY_TWO_BITS = {TypeKind.UINT, TypeKind.INT}


def replace(node, text):
    return [(node.begin, node.end, text)]


def is_comparison(node):
    found = node.operator()
    return found is not None and found[0] in OPPOSITE


def is_logic(node):
    found = node.operator()
    return found is not None and found[0] in LOGIC


def is_not(node):
    return node.kind == Kind.UNARY_OPERATOR and node.text.startswith("!")


def boundary(node):
    found = node.operator()
    if found and found[0] in BOUNDARY:
        yield [(found[1], found[2], BOUNDARY[found[0]])]


def comparison(node):
    found = node.operator()
    if found and found[0] in OPPOSITE:
        yield [(found[1], found[2], OPPOSITE[found[0]])]


def condition_of(node):
    """The expression that decides; of a loop or a choice."""
    parts = node.children
    if node.kind == Kind.CONDITIONAL_OPERATOR:
        return parts[0]
    if node.kind == Kind.DO_STMT:
        return parts[-1]
    if node.kind in (Kind.IF_STMT, Kind.WHILE_STMT):
        for part in parts[:-1]:
            if node.source.after(part.end).startswith(")"):
                return part
    if node.kind == Kind.FOR_STMT:
        for part in parts[:-1]:
            if (node.source.before(part.begin).endswith(";") and
                    node.source.after(part.end).startswith(";")):
                return part
    return None


def condition(node):
    decisive = condition_of(node)
    if decisive is None:
        return
    if decisive.kind in (Kind.VAR_DECL, Kind.DECL_STMT):
        yield [(decisive.end, decisive.end, "; false")]
        return
    yield replace(decisive, "false")
    if node.kind in LOOPS:
        return
    yield replace(decisive, "true")
    plain = decisive.bare
    if not is_comparison(plain) and not is_not(plain):
        yield replace(decisive, f"!({decisive.text})")


def negation(node):
    if is_not(node):
        yield [(node.begin, node.begin + 1, "")]


def logic(node):
    found = node.operator()
    if not found or found[0] not in LOGIC:
        return
    symbol, begin, end, left, right = found
    yield [(begin, end, LOGIC[symbol])]
    for operand in (left, right):
        plain = operand.bare
        if is_logic(plain) and plain.text == operand.text:
            continue
        yield replace(operand, "true" if symbol == "&&" else "false")
        if not is_comparison(plain) and not is_not(plain):
            yield replace(operand, f"!({operand.text})")


def arithmetic(node):
    found = node.operator()
    if found and found[0] in ARITHMETIC and node.kind != Kind.CALL_EXPR:
        yield [(found[1], found[2], ARITHMETIC[found[0]])]
    if node.kind in (Kind.UNARY_OPERATOR, Kind.CALL_EXPR) and steps_number(node):
        text = node.text
        for sign, other in (("++", "--"), ("--", "++")):
            if text.startswith(sign):
                yield [(node.begin, node.begin + 2, other)]
            elif text.endswith(sign):
                yield [(node.end - 2, node.end, other)]


def steps_number(node):
    """Whether this is ++ or -- of a number, not of an iterator."""
    if node.kind == Kind.CALL_EXPR and node.cursor.spelling not in ("operator++", "operator--"):
        return False
    return node.cursor.type.get_canonical().kind.value <= TypeKind.LONGDOUBLE.value


def constant(node):
    if node.kind == Kind.CXX_BOOL_LITERAL_EXPR:
        yield replace(node, "false" if node.text == "true" else "true")
    if node.kind == Kind.CHARACTER_LITERAL:
        yield replace(node, f"({node.text} + 1)")
    written = re.fullmatch(r"(0[xX])?([0-9a-fA-F']+?)([uUlL]*)", node.text)
    if node.kind != Kind.INTEGER_LITERAL or not written:
        return
    prefix, digits, suffix = written.group(1) or "", written.group(2), written.group(3)
    value = int(digits.replace("'", ""), 16 if prefix else 10)
    for other in (value + 1, value - 1):
        number = f"{abs(other):X}" if prefix else str(abs(other))
        yield replace(node, ("-" if other < 0 else "") + prefix + number + suffix)


def neighbours(member, alike):
    """The next and the previous of the members that are alike."""
    owner = member.semantic_parent
    names = [other.spelling for other in owner.get_children()
             if other.kind == member.kind and alike(other)]
    if member.spelling not in names or len(names) < 2:
        return []
    at = names.index(member.spelling)
    return dict.fromkeys((names[(at + 1) % len(names)], names[at - 1]))


def same_type(member):
    wanted = plain_type(member.type)
    return lambda other: plain_type(other.type) == wanted


def plain_type(of):
    spelling = of.get_canonical().spelling
    return re.sub(r"\bconst\b|&|\s", "", spelling)


def other_member(node):
    """A field, or a constant, for another one of its type."""
    if node.kind not in (Kind.MEMBER_REF_EXPR, Kind.DECL_REF_EXPR):
        return
    member = node.cursor.referenced
    if member is None or not node.text.endswith(member.spelling):
        return
    constant_of_scope = (member.kind == Kind.VAR_DECL and member.type.is_const_qualified() and
                         member.semantic_parent.kind not in FUNCTIONS)
    if member.kind not in (Kind.FIELD_DECL, Kind.ENUM_CONSTANT_DECL) and not constant_of_scope:
        return
    for name in neighbours(member, same_type(member)):
        yield [(node.end - len(member.spelling), node.end, name)]


def swapped_arguments(node):
    if node.cursor.spelling in ("min", "max"):
        return
    if node.kind == Kind.CALL_EXPR and not node.cursor.spelling.startswith("operator"):
        given = [(argument.extent.start.offset, argument.extent.end.offset)
                 for argument in node.cursor.get_arguments() if argument is not None]
        arguments = [child for child in node.children if (child.begin, child.end) in given]
    elif node.kind == Kind.INIT_LIST_EXPR:
        arguments = node.children
    else:
        return
    for left, right in zip(arguments, arguments[1:]):
        alike = (plain_type(left.cursor.type) == plain_type(right.cursor.type) or
                 plain_type(left.bare.cursor.type) == plain_type(right.bare.cursor.type))
        separated = node.source.text(left.end, right.begin).strip() == ","
        if alike and left.text and separated and not left.text.startswith("{"):
            yield [(left.begin, left.end, right.text), (right.begin, right.end, left.text)]


def narrowing(node):
    """A number of 64 bits cut to 32; a number of 32 bits cut to 16 where it is compared."""
    if node.kind == Kind.CXX_STATIC_CAST_EXPR and node.text.startswith("static_cast<uint64_t>"):
        yield [(node.begin, node.begin + len("static_cast<uint64_t>"), "static_cast<uint32_t>")]
        return
    if not is_read(node):
        return
    plain = node.bare
    spelled = plain.cursor.type.spelling
    size = plain.cursor.type.get_canonical().kind
    if "size" in spelled or "difference" in spelled:
        return
    if size in SIXTY_FOUR_BITS:
        yield replace(node, f"static_cast<uint32_t>({node.text})")
    above = node.enclosing
    found = above.operator() if above else None
    if (size in THIRTY_TWO_BITS and found and found[0] in ("==", "!=") and
            node.kind != Kind.CALL_EXPR):
        yield replace(node, f"static_cast<uint16_t>({node.text})")


def is_read(node):
    """Whether a variable's value is taken here, or a function's result."""
    if node.kind == Kind.UNEXPOSED_EXPR and len(node.children) == 1:
        child = node.children[0]
        return child.kind in (Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR)
    return (node.kind == Kind.CALL_EXPR and
            node.cursor.type.kind not in (TypeKind.LVALUEREFERENCE, TypeKind.RVALUEREFERENCE) and
            not node.cursor.spelling.startswith("operator"))


def text(node):
    if node.kind == Kind.STRING_LITERAL and node.text.startswith('"') and node.text != '""':
        yield [(node.begin + 1, node.begin + 1, "?")]
