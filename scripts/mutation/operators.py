"""What a careless hand does to a program.

An operator is a generator: at a node of the syntax tree it yields its faults, each a list of edits
(begin, end, new text) of the node's file.
"""
from . import expressions, statements

OPERATORS = {
    "boundary": expressions.boundary,
    "comparison": expressions.comparison,
    "condition": expressions.condition,
    "negation": expressions.negation,
    "and for or": expressions.logic,
    "arithmetic": expressions.arithmetic,
    "constant": expressions.constant,
    "other member": expressions.other_member,
    "arguments swapped": expressions.swapped_arguments,
    "call dropped": statements.dropped_call,
    "notification dropped": statements.dropped_notification,
    "assignment dropped": statements.dropped_assignment,
    "initializer dropped": statements.dropped_initializer,
    "exit dropped": statements.dropped_exit,
    "returned value": statements.returned_value,
    "early return": statements.early_return,
    "loop runs once": statements.loop_once,
    "lock dropped": statements.dropped_lock,
    "lock wider": statements.wider_lock,
    "narrowing": expressions.narrowing,
    "text": expressions.text,
}
