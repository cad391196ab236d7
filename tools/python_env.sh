# Sourced by the set-up scripts: a virtual environment under build/venv with the
# package installed from this checkout (extras given as arguments).
venv=build/venv
if ! python3 -m venv --help >/dev/null 2>&1 || ! python3 -c "import ensurepip" >/dev/null 2>&1; then
  echo "installing: python3-venv python3-pip"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq python3-venv python3-pip
fi
[ -x "$venv/bin/python" ] || python3 -m venv "$venv"
extras=$(IFS=,; echo "$*")
"$venv/bin/python" -m pip install --quiet --upgrade pip
"$venv/bin/python" -m pip install --quiet ".${extras:+[$extras]}"
