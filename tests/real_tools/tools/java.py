import glob
import os

from scenario import Scenario

POM = """<project xmlns="http://maven.apache.org/POM/4.0.0"><modelVersion>4.0.0</modelVersion>{parent}
<groupId>com.example</groupId><artifactId>{name}</artifactId><version>1.0</version><packaging>pom</packaging></project>
"""
PARENT = """<parent><groupId>com.example</groupId><artifactId>{}</artifactId><version>1.0</version><relativePath/></parent>
"""
SETTINGS = """<settings><mirrors><mirror><id>here</id><mirrorOf>*</mirrorOf><url>file:///srv/maven</url></mirror></mirrors>
</settings>
"""


class Maven(Scenario):
    """The records of failed downloads go; fetched and installed artifacts stay."""

    name = "maven"
    holders = ("maven",)
    packages = ("maven/mvn", "libmaven-install-plugin-java")
    plugins = "/usr/share/maven-repo/org/apache/maven/plugins/maven-install-plugin"

    def maven(self, *arguments, status=0):
        return self.machine.run("mvn", "-B", "-q", *arguments, cwd=self.machine.path("project"), status=status)

    def publish(self, name):
        """Puts an artifact into the repository of this machine, from which Maven fetches."""
        where = f"/srv/maven/com/example/{name}/1.0"
        os.makedirs(where)
        with open(f"{where}/{name}-1.0.pom", "w", encoding="ascii") as file:
            file.write(POM.format(name=name, parent=""))

    def child_of(self, name):
        """Makes that artifact the parent of the project."""
        self.machine.write("project/pom.xml", POM.format(name="project", parent=PARENT.format(name)))

    def repository(self, name, pattern):
        return glob.glob(self.machine.path(f".m2/repository/com/example/{name}/1.0/{pattern}"))

    def install(self):
        version = next(v for v in os.listdir(self.plugins) if v[0].isdigit())
        self.machine.write("installed.pom", POM.format(name="installed", parent=""))
        self.maven(f"org.apache.maven.plugins:maven-install-plugin:{version}:install-file", "-Dfile=../installed.pom",
                   "-DgroupId=com.example", "-DartifactId=installed", "-Dversion=1.0", "-Dpackaging=pom")

    def fill(self):
        self.machine.run("cp", "-aL", "/usr/share/maven-repo", "/srv/maven", user="root")
        self.publish("fetched")
        self.machine.write(".m2/settings.xml", SETTINGS)
        self.child_of("fetched")
        self.maven("validate")
        self.install()
        self.child_of("missing")
        self.maven("validate", status=1)
        self.expect(self.repository("missing", "*.lastUpdated"), "Maven left no record of the failed download")

    def works(self):
        self.expect(not self.repository("missing", "*.lastUpdated"), "the record is left")
        for name in ("fetched", "installed"):
            self.expect(self.repository(name, "*.pom"), f"what was {name} is gone")
            self.child_of(name)
            self.maven("validate", "--offline")
        self.publish("missing")
        self.child_of("missing")
        self.maven("validate")
