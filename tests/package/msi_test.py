"""What a Windows administrator does with an .msi: installs it, uses the programs by their names, removes it.
usage: msi_test.py WINE-RUN MSI    WINE-RUN is a build's, with its prefix there
"""
import os
import pathlib
import shlex
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "e2e"))
from programs import Client, Device  # noqa: E402

wine_run, msi = sys.argv[1:]
folder = pathlib.Path(subprocess.check_output([wine_run, "--folder"], text=True).strip())
home = folder.parent / "prefix/drive_c/Program Files/QOMA"
shutil.copy(msi, folder / "qoma.msi")


def system(*command):
    return subprocess.run([wine_run, "--system", *command], text=True, errors="replace", timeout=300,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def path():
    return system("reg", "query", r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment", "/v", "PATH").stdout


assert "system32" in path().lower() and "QOMA" not in path(), path()
done = system("msiexec", "/i", "qoma.msi", "/qn")
assert done.returncode == 0, f"msiexec /i ended with {done.returncode}: {done.stdout}"
assert (home / "bin/QOMANoAg.dll").is_file() and (home / "share/doc/qoma/README.md").is_file()
assert r"QOMA\bin" in path(), path()

for variable, program in (("QOMA_MFPSIM", "mfpsim"), ("QOMA_NOTIFYMON", "notifymon")):
    os.environ[variable] = shlex.join([wine_run, "--system", program])
device = Device()
client = Client(device, "--option", "Paper Archive", "--count", "1")
try:
    device.tell("pick Paper Archive")
    assert "Paper Archive" in client.next("eCT_SELECT_NOTIFY")["option"]
    assert client.wait() == 0
    device.tell("quit")
    assert device.wait() == 0
finally:
    client.kill()
    device.kill()

done = system("msiexec", "/x", "qoma.msi", "/qn")
assert done.returncode == 0, f"msiexec /x ended with {done.returncode}: {done.stdout}"
assert not home.exists(), list(home.rglob("*"))
assert "system32" in path().lower() and "QOMA" not in path(), path()
print(f"msi: {pathlib.Path(msi).name} was installed, used and removed")
