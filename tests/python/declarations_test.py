"""The module's declarations match the C header."""

import ctypes
import pathlib
import re
import unittest

from kelvane import _library, _rules, _services

HEADER = (pathlib.Path(__file__).resolve().parents[2] / "include/kelvane/kelvane.h").read_text()
PLAIN = re.sub(r"//.*", "", HEADER)
SCALARS = {"int": ctypes.c_int, "bool": ctypes.c_bool, "size_t": ctypes.c_size_t, "double": ctypes.c_double,
           "uint64_t": ctypes.c_uint64, "int64_t": ctypes.c_int64, "void": None}
STRUCTURES = {"kelvane_error": _library.ErrorBuffer, "kelvane_service_handler": _library.ServiceHandler,
              "kelvane_directory_count": _library.DirectoryCount, "kelvane_directory_purge": _library.DirectoryPurge,
              "kelvane_purge_request": _library.PurgeRequest}


def declared(text: str):
    """The ctypes type for a C type."""
    text = " ".join(text.replace("const ", "").replace("*", " *").split())
    if text in SCALARS:
        return SCALARS[text]
    if text == "kelvane_state_changed":
        return _library.StateChanged
    if not text.endswith("*"):
        return ctypes.c_int  # an enumeration
    pointed = text[:-1].strip()
    if pointed == "char":
        return ctypes.c_char_p
    return ctypes.POINTER(STRUCTURES[pointed]) if pointed in STRUCTURES else ctypes.c_void_p


def functions():
    for result, name, arguments in re.findall(r"KELVANE_EXPORT ([^;(]*?[\s*])kelvane_(\w+)\(([^;]*)\);", PLAIN):
        types = [re.sub(r"\w+$", "", each.strip()) for each in arguments.split(",") if each.strip() != "void"]
        yield name, tuple(declared(each) for each in (result, *types))


class Declarations(unittest.TestCase):
    def test_each_function_has_the_types_of_the_header(self):
        header = dict(functions())
        self.assertGreater(len(header), 60)
        self.assertEqual(_library.FUNCTIONS, header)

    def test_each_structure_has_the_members_of_the_header(self):
        for name, structure in STRUCTURES.items():
            body = re.search(r"typedef struct " + name + r" \{(.*?)\} " + name + ";", PLAIN, re.DOTALL)[1]
            members = re.findall(r"(\w+)(?:\[\d+\])?;|\(\*(\w+)\)\([^;]*;", body)
            self.assertEqual([a or b for a, b in members], [field[0] for field in structure._fields_], name)

    def test_each_state_and_kind_has_the_number_of_the_header(self):
        numbers = {name: int(number) for name, number in re.findall(r"KELVANE_(\w+) = (\d+)", PLAIN)}
        for state in _services.State:
            self.assertEqual(numbers["SERVICE_" + state.name], state)
        for kind, number in _rules._KINDS.items():
            self.assertEqual(numbers["LOCK_" + kind.upper()], number)
        for number, end in enumerate(_rules._ENDS):
            self.assertEqual(numbers["PURGE_" + end.upper().replace(" ", "_")], number)
        for number, error in _library._ERRORS.items():
            name = re.sub("(?<=[a-z])(?=[A-Z])", "_", error.__name__.replace("MemoryError", "NoMemory")).upper()
            self.assertEqual(numbers[name], number)


if __name__ == "__main__":
    unittest.main()
