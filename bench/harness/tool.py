"""What is found among installed and unpacked programs, and run in a directory of its own."""

import os
import shutil


class Tool:
    """Base of all that is measured: knows its directory and where programs are."""

    name = ""
    executables = ()  # all of them have to be there
    variables = ("PATH",)  # of `tools`, which it needs to be found and run

    def __init__(self, root, tools):
        self.root = root
        self.tools = tools

    @classmethod
    def is_available(cls, tools):
        return all(shutil.which(name, path=tools["PATH"]) for name in cls.executables)

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def find(self, executable):
        return shutil.which(executable, path=self.tools["PATH"])

    def environment(self):
        return {**os.environ, **{name: self.tools[name] for name in self.variables}}
