# nvram as a whole program, on a folder that the test makes.
import shutil

from world import Scenario, write

GUID = "8be4df61-93ca-11d2-aa0d-00e098032b8c"


class Nvram(Scenario):
    def nvram(self):
        self.tool("nvram", "-p", environment={"TARNWICK_EFIVARS_DIR": "/media/efivars"})

    def test_unreadable_variables_are_named_and_none_at_all_is_a_failure(self):
        write(f"/media/efivars/Bad\x1b-{GUID}", b"\7")
        self.nvram()
        write(f"/media/efivars/BootOrder-{GUID}", b"\7\0\0\0\1\0")
        write(f"/media/efivars/UserPassword-{GUID}", b"\7\0\0\0topsecret")
        self.nvram()
        shutil.rmtree("/media/efivars")
        self.nvram()
