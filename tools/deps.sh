#!/bin/sh
# Installs the Debian packages the build, the tests and the tools need.
set -e
PACKAGES="cmake g++ clang libclang-rt-14-dev llvm-14 libgtest-dev libgmock-dev libbenchmark-dev pkg-config libgsf-1-dev python3 valgrind python3-venv python3-pip"
# Java 17 and Maven: the Tika parser, and PySpark in local mode for the Spark tests.
PACKAGES="$PACKAGES openjdk-17-jdk-headless maven"
missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
$SUDO apt-get update
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y $missing
