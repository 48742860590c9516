"""The faults in what is done: calls, assignments, exits, loops, locks."""
import re

from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

from .expressions import OPPOSITE, condition_of, is_comparison, is_not, replace
from .syntax import FUNCTIONS, LOOPS

NOTIFICATIONS = {"notify_one", "notify_all", "wakeLooper", "wake", "wakeStalled"}
LOCK = re.compile(r"\b(lock_guard|unique_lock|scoped_lock)<")


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
            end = end_of_statement(body.children[-1])
            yield [(end, end, " break;")]
    else:
        end = end_of_statement(body)
        yield [(body.begin, body.begin, "{ "), (end, end, " break; }")]


def end_of_statement(node):
    """Behind its semicolon, where it has one."""
    if node.source.after(node.end).startswith(";"):
        return node.source.data.index(b";", node.end) + 1
    return node.end


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
        kinds = {declared.cursor.type.get_canonical().kind for declared in statement.children}
        if kinds != {TypeKind.RECORD}:
            continue  # nothing is released with it
        yield [(statement.begin, statement.end, ""), (lock.end, lock.end, " " + statement.text)]
