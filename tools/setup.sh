# Sourced by the set-up scripts. Installs missing Debian packages and keeps a
# virtual environment under build/venv with the package installed from this checkout.

SUDO=""
if [ "$(id -u)" != 0 ] && command -v sudo >/dev/null; then SUDO=sudo; fi

# require CHECK PACKAGE...: installs the packages when the shell test CHECK fails.
missing=()
require() {
  local check=$1; shift
  eval "$check" >/dev/null 2>&1 || missing+=("$@")
}
install_missing() {
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
    missing=()
  fi
}

# python_env EXTRA...: the virtual environment with the package and these extras.
python_env() {
  require "python3 -c 'import ensurepip, venv'" python3-venv python3-pip
  install_missing
  [ -x build/venv/bin/python ] || python3 -m venv build/venv
  local extras
  extras=$(IFS=,; echo "$*")
  build/venv/bin/python -m pip install --quiet --upgrade pip
  build/venv/bin/python -m pip install --quiet ".${extras:+[$extras]}"
}
