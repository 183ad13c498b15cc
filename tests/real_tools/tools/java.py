import glob
import os
import shutil

from scenario import Scenario

POM = """<project xmlns="http://maven.apache.org/POM/4.0.0"><modelVersion>4.0.0</modelVersion>
<groupId>com.example</groupId><artifactId>{name}</artifactId><version>1.0</version><packaging>{packaging}</packaging>
<properties><maven.compiler.source>11</maven.compiler.source><maven.compiler.target>11</maven.compiler.target>
<project.build.sourceEncoding>UTF-8</project.build.sourceEncoding></properties>
<dependencies>{dependencies}</dependencies></project>
"""
DEPENDENCY = "<dependency><groupId>{0}</groupId><artifactId>{1}</artifactId><version>{2}</version></dependency>"
SETTINGS = """<settings><mirrors><mirror><id>here</id><mirrorOf>*</mirrorOf><url>file:///srv/maven</url></mirror></mirrors>
</settings>
"""


class Maven(Scenario):
    """What a failed download leaves goes; what was fetched or installed stays."""

    name = "maven"
    holders = ("maven",)
    packages = ("maven/mvn", "libmaven-compiler-plugin-java", "libmaven-install-plugin-java")
    plugins = "/usr/share/maven-repo/org/apache/maven/plugins"

    def maven(self, plugin, goal, *options, status=0):
        versions = [v for v in os.listdir(f"{self.plugins}/maven-{plugin}-plugin") if v[0].isdigit()]
        return self.machine.run("mvn", "-B", *options, f"org.apache.maven.plugins:maven-{plugin}-plugin:{versions[0]}:{goal}",
                                cwd=self.machine.path("project"), status=status)

    def publish(self, name):
        """Into the repository of this machine, which Maven fetches from."""
        where = f"/srv/maven/com/example/{name}/1.0"
        os.makedirs(where)
        with open(f"{where}/{name}-1.0.pom", "w", encoding="ascii") as file:
            file.write(POM.format(name=name, packaging="pom", dependencies=""))
        shutil.make_archive(f"{where}/{name}-1.0", "zip", where)
        os.rename(f"{where}/{name}-1.0.zip", f"{where}/{name}-1.0.jar")

    def depends_on(self, *names):
        dependencies = "".join(DEPENDENCY.format("com.example", name, "1.0") for name in names)
        self.machine.write("project/pom.xml", POM.format(name="project", packaging="jar", dependencies=dependencies))

    def repository(self, name, pattern):
        return glob.glob(self.machine.path(f".m2/repository/com/example/{name}/1.0/{pattern}"))

    def fill(self):
        self.machine.run("cp", "-aL", "/usr/share/maven-repo", "/srv/maven", user="root")
        self.publish("fetched")
        self.machine.write(".m2/settings.xml", SETTINGS)
        self.depends_on("fetched")
        self.maven("compiler", "compile")
        self.machine.run("cp", "/srv/maven/com/example/fetched/1.0/fetched-1.0.jar", "installed.jar")
        self.maven("install", "install-file", "-Dfile=../installed.jar", "-DgroupId=com.example", "-DartifactId=installed",
                   "-Dversion=1.0", "-Dpackaging=jar")
        self.depends_on("fetched", "installed", "missing")
        self.maven("compiler", "compile", status=1)
        self.expect(self.repository("missing", "*.lastUpdated"), "Maven left no record of the failed download")

    def works(self):
        self.expect(not self.repository("missing", "*.lastUpdated"), "the record is left")
        for name in ("fetched", "installed"):
            self.expect(self.repository(name, "*.jar"), f"what was {name} is gone")
        self.publish("missing")
        self.maven("compiler", "compile")
