import os
import zipfile

from machine import serving
from scenario import Scenario

BUILD = """apply plugin: 'java'
repositories {{ maven {{ url '{address}' }} }}
dependencies {{ compile 'com.example:fetched:1.0' }}
"""
POM = """<project><modelVersion>4.0.0</modelVersion><groupId>com.example</groupId><artifactId>fetched</artifactId>
<version>1.0</version></project>
"""


class Gradle(Scenario):
    """Results of tasks and derived data go first, downloaded libraries last."""

    name = "gradle"
    holders = ("gradle-build-cache", "gradle-modules", "gradle-versions")
    packages = ("gradle", "default-jdk-headless/javac")
    freeing = (3, 4)
    port = 0  # chosen by the first server, then reused

    def build(self):
        """Runs Gradle; returns its output, and whether it fetched the library."""
        with serving("/srv/gradle", self.port) as (address, asked):
            self.port = int(address.rpartition(":")[2])
            self.machine.write("project/build.gradle", BUILD.format(address=address))
            output = self.machine.run("gradle", "--no-daemon", "--build-cache", "--info", "compileJava",
                                      cwd=self.machine.path("project"))
        return output, any(path.endswith(".jar") for path in asked)

    def fill(self):
        where = "/srv/gradle/com/example/fetched/1.0"
        os.makedirs(where)
        with open(f"{where}/fetched-1.0.pom", "w", encoding="ascii") as file:
            file.write(POM)
        with zipfile.ZipFile(f"{where}/fetched-1.0.jar", "w") as archive:
            archive.writestr("data", os.urandom(600_000))
        self.machine.write("project/settings.gradle", "rootProject.name = 'demo'\n")
        for number in range(30):
            text = f'class Part{number} {{ static final String TEXT = "{str(number) * 3000}"; }}\n'
            self.machine.write(f"project/src/main/java/Part{number}.java", text)
        self.expect(self.build()[1], "Gradle did not fetch the library")

    def again(self):
        self.machine.run("rm", "-rf", self.machine.path("project/build"))
        return self.build()

    def after(self, urgency):
        if urgency == 3:
            self.expect(not self.again()[1], "Gradle fetched the library again, though it was there")

    def works(self):
        self.expect(self.again()[1], "the library is still kept")
        output, fetched = self.again()
        self.expect("FROM-CACHE" in output, f"the build cache is not filled again: {output[-2500:]}")
        self.expect(not fetched, "the library is not kept again")
