"""What a careless hand does to a program: each operator finds its faults at one node.

An operator is a generator that yields lists of edits (begin, end, new text) of the node's file.
"""
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
LOCK = re.compile(r"\b(lock_guard|unique_lock|scoped_lock)<")
NOTIFICATIONS = {"notify_one", "notify_all", "wakeLooper", "wake", "wakeStalled"}
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
        if alike and left.text and left.end < right.begin and not left.text.startswith("{"):
            yield [(left.begin, left.end, right.text), (right.begin, right.end, left.text)]


def is_statement(node):
    """Whether this stands as a statement of its own, with its semicolon."""
    if not node.parent or node.source.after(node.end)[:1] != ";":
        return False
    if node.parent.kind == Kind.COMPOUND_STMT:
        return True
    controls = {Kind.IF_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT} | LOOPS
    return (node.parent.kind in controls and node is not condition_of(node.parent) and
            bool(re.search(r"(\)|\belse|:|\bdo)$", node.source.before(node.begin))))


def called(node):
    return node.cursor.spelling if node.kind == Kind.CALL_EXPR else ""


def is_assignment(node):
    found = node.operator()
    return bool(found) and found[0].endswith("=") and found[0] not in OPPOSITE


def steps(node):
    return node.text.startswith(("++", "--")) or node.text.endswith(("++", "--"))


def is_droppable(node):
    plain = node.bare
    return is_statement(node) and (plain.kind in (Kind.CALL_EXPR, Kind.CXX_THROW_EXPR) or
                                   is_assignment(plain) or steps(plain))


def dropped_call(node):
    plain = node.bare
    if (is_statement(node) and (plain.kind == Kind.CALL_EXPR or plain.kind == Kind.CXX_THROW_EXPR)
            and called(plain) not in NOTIFICATIONS and not is_assignment(plain)):
        yield replace(node, "")


def dropped_notification(node):
    if is_statement(node) and called(node.bare) in NOTIFICATIONS:
        yield replace(node, "")


def dropped_assignment(node):
    plain = node.bare
    if is_statement(node) and (is_assignment(plain) or
                               (plain.kind == Kind.UNARY_OPERATOR and steps(plain))):
        yield replace(node, "")


def dropped_initializer(node):
    """A constructor's member begins empty instead of as it is told."""
    if node.kind != Kind.CONSTRUCTOR:
        return
    parts = node.children
    for name, value in zip(parts, parts[1:]):
        if name.kind == Kind.MEMBER_REF and value.kind.is_expression() and value.text:
            inside = (node.source.before(value.begin)[-1:], node.source.after(value.end)[:1])
            if inside in (("(", ")"), ("{", "}")):
                yield replace(value, "")


def is_last(node):
    """Whether nothing of its function follows this statement."""
    block = node.parent
    return (block.kind == Kind.COMPOUND_STMT and node is block.children[-1] and
            block.parent is not None and block.parent.kind in FUNCTIONS | {Kind.LAMBDA_EXPR})


def stands_alone(node):
    """Whether this is all that a condition decides on; without it, the condition were false."""
    block = node.parent
    if block.kind == Kind.COMPOUND_STMT and len(block.children) == 1:
        block = block.parent
    return block is not None and block.kind == Kind.IF_STMT and len(block.children) <= 3


def dropped_exit(node):
    """A return, break or continue that does not happen, or another one instead."""
    if node.kind not in (Kind.RETURN_STMT, Kind.BREAK_STMT, Kind.CONTINUE_STMT):
        return
    if not is_last(node) and not stands_alone(node):
        yield replace(node, "")
    if node.kind == Kind.CONTINUE_STMT:
        yield replace(node, "break")
    if node.kind == Kind.BREAK_STMT and not any(a.kind == Kind.SWITCH_STMT
                                                for a in node.ancestors()):
        yield replace(node, "continue")


def returned_value(node):
    if node.kind != Kind.RETURN_STMT or not node.children:
        return
    value = node.children[0]
    plain = value.bare
    if re.fullmatch(r"true|false|nullptr|-?\d+|\{\}", value.text):
        return
    yield replace(value, "{}")
    boolean = plain.cursor.type.get_canonical().kind == TypeKind.BOOL
    if boolean and not is_comparison(plain) and not is_not(plain):
        yield replace(value, f"!({value.text})")


def early_return(node):
    if node.kind not in FUNCTIONS or not node.children:
        return
    body = node.children[-1]
    if body.kind != Kind.COMPOUND_STMT or not body.children:
        return
    first = body.children[0]
    silent = (node.cursor.result_type.kind == TypeKind.VOID or
              node.kind in (Kind.CONSTRUCTOR, Kind.DESTRUCTOR))
    if len(body.children) > 1 or not (first.kind == Kind.RETURN_STMT or is_droppable(first)):
        yield [(first.begin, first.begin, "return; " if silent else "return {}; ")]
    if silent:
        for statement in body.children[1:]:
            if not is_droppable(statement) or statement is not body.children[-1]:
                yield [(statement.begin, statement.begin, "return; ")]


def loop_once(node):
    if node.kind not in LOOPS or not node.children:
        return
    body = node.children[0 if node.kind == Kind.DO_STMT else -1]
    if body.kind == Kind.COMPOUND_STMT:
        if body.children and body.children[-1].kind not in (Kind.RETURN_STMT, Kind.BREAK_STMT):
            yield [(body.end - 1, body.end - 1, "break; ")]
    elif node.source.after(body.end).startswith(";"):
        end = node.source.data.index(b";", body.end) + 1
        yield [(body.begin, body.begin, "{ "), (end, end, " break; }")]


def is_lock(node):
    return (node.kind == Kind.DECL_STMT and len(node.children) == 1 and
            node.children[0].kind == Kind.VAR_DECL and
            bool(LOCK.search(node.children[0].cursor.type.get_canonical().spelling)))


def dropped_lock(node):
    if is_lock(node):
        yield replace(node, "")


def wider_lock(node):
    """What follows the locked block, or is declared before it, is moved into it."""
    if not is_lock(node) or node.parent.kind != Kind.COMPOUND_STMT:
        return
    block = node.parent
    outer = block.parent
    if outer is not None and outer.kind == Kind.COMPOUND_STMT:
        if outer.children[-1] is not block:
            yield [(block.end - 1, block.end, ""), (outer.end - 1, outer.end - 1, "} ")]
        yield from moved_behind(node, outer.children[:outer.children.index(block)])
    yield from moved_behind(node, block.children[:block.children.index(node)])


def moved_behind(lock, statements):
    for statement in reversed(statements):
        if statement.kind != Kind.DECL_STMT or is_lock(statement):
            return
        yield [(statement.begin, statement.end, ""), (lock.end, lock.end, " " + statement.text)]


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
    return (node.kind == Kind.CALL_EXPR and not is_statement(node) and
            node.cursor.type.kind not in (TypeKind.LVALUEREFERENCE, TypeKind.RVALUEREFERENCE) and
            not node.cursor.spelling.startswith("operator"))


def text(node):
    if node.kind == Kind.STRING_LITERAL and node.text.startswith('"') and node.text != '""':
        yield [(node.begin + 1, node.begin + 1, "?")]


OPERATORS = {
    "boundary": boundary,
    "comparison": comparison,
    "condition": condition,
    "negation": negation,
    "and for or": logic,
    "arithmetic": arithmetic,
    "constant": constant,
    "other member": other_member,
    "arguments swapped": swapped_arguments,
    "call dropped": dropped_call,
    "notification dropped": dropped_notification,
    "assignment dropped": dropped_assignment,
    "initializer dropped": dropped_initializer,
    "exit dropped": dropped_exit,
    "returned value": returned_value,
    "early return": early_return,
    "loop runs once": loop_once,
    "lock dropped": dropped_lock,
    "lock wider": wider_lock,
    "narrowing": narrowing,
    "text": text,
}
