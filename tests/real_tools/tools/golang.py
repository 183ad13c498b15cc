import os
import zipfile

from scenario import Scenario

ENVIRONMENT = {"GOPROXY": "file:///srv/goproxy", "GOSUMDB": "off", "GOFLAGS": "-mod=mod"}


class Go(Scenario):
    packages = ("golang-go",)

    def module(self, name, size):
        """Puts version v1.0.0 of the module into the proxy of this machine."""
        escaped = "".join("!" + letter.lower() if letter.isupper() else letter for letter in name)
        at = f"/srv/goproxy/{escaped}/@v"
        os.makedirs(at)
        text = {"go.mod": f"module {name}\n\ngo 1.19\n", "it.go": "package it\n\nfunc Number() int { return 7 }\n",
                "sub/sub.go": "package sub\n\nconst Text = \"" + "x" * size + "\"\n"}
        with zipfile.ZipFile(f"{at}/v1.0.0.zip", "w") as archive:
            for path, content in text.items():
                archive.writestr(f"{name}@v1.0.0/{path}", content)
        for path, content in (("v1.0.0.mod", text["go.mod"]), ("list", "v1.0.0\n"),
                              ("v1.0.0.info", '{"Version": "v1.0.0", "Time": "2024-01-01T00:00:00Z"}')):
            with open(f"{at}/{path}", "w", encoding="ascii") as file:
                file.write(content)

    def build(self, **environment):
        self.machine.run("go", "build", "-o", "program", cwd=self.machine.path("project"), env={**ENVIRONMENT, **environment})
        self.machine.run(self.machine.path("project/program"))

    def fill(self):
        self.module("example.com/First", 500_000)
        self.module("example.com/second", 200_000)
        self.machine.write("project/go.mod", "module example.com/program\n\ngo 1.19\n\nrequire (\n\texample.com/First v1.0.0\n"
                           "\texample.com/second v1.0.0\n)\n")
        self.machine.write("project/main.go", 'package main\n\nimport (\n\t"fmt"\n\tfirst "example.com/First"\n'
                           '\t"example.com/First/sub"\n\tsecond "example.com/second"\n)\n\n'
                           'func main() { fmt.Println(first.Number()+second.Number(), len(sub.Text)) }\n')
        self.build()


class GoBuild(Go):
    name = "go-build"
    holders = ("go-build",)

    def works(self):
        self.build()
        self.machine.run("go", "vet", cwd=self.machine.path("project"), env=ENVIRONMENT)


class GoModules(Go):
    name = "go-modules"
    holders = ("go-modules", "go-archives")
    urgencies = (2, 3, 4)
    freeing = (2, 3)

    def after(self, urgency):
        if urgency == 2:  # unpacked again from the archives
            self.build(GOPROXY="off")

    def works(self):
        self.build()
        self.machine.run("go", "mod", "verify", cwd=self.machine.path("project"), env=ENVIRONMENT)
        self.build(GOPROXY="off")
