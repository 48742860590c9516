"""The mutants that nobody can tell from the original, each with the reason, from a file."""
import json

SHARE = 0.08  # of all mutants; with more, somebody has stopped looking


class Equivalents:
    def __init__(self, path):
        entries = json.loads(path.read_text()) if path.exists() else []
        for entry in entries:
            missing = {"file", "function", "before", "after", "reason"} - set(entry)
            if missing or not entry["reason"].strip():
                raise ValueError(f"{path}: an entry has no {', '.join(sorted(missing)) or 'reason'}"
                                 f": {entry}")
        self.entries = {(entry["file"], entry["function"], entry["before"], entry["after"]): entry
                        for entry in entries}

    def __contains__(self, mutant):
        return mutant.key in self.entries

    def stale(self, mutants, files):
        """The entries for these files that no mutant matches any more."""
        keys = {mutant.key for mutant in mutants}
        return [entry for key, entry in self.entries.items()
                if key not in keys and entry["file"] in files]

    def too_many(self, mutants):
        """How many there are and may be, where that is too many; None otherwise."""
        found = sum(mutant in self for mutant in mutants)
        allowed = int(len(mutants) * SHARE)
        return (found, allowed) if found > allowed else None
