#!/usr/bin/env bash
# Installs the Debian 12 packages Plim builds and tests with, then builds it.
# Usage: sudo scripts/setup.sh   (or as root)   BUILD_TYPE=Release (default) | Sanitize | RelWithDebInfo | Debug
# Users get the optimised Release build; CI builds and tests the sanitized one.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev
  nlohmann-json3-dev
  libsdbus-c++-dev libsystemd-dev dbus-daemon dbus-bin
  libxkbcommon-dev libxkbcommon-x11-dev
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev ffmpeg librubberband-dev
  libcairo2-dev libpixman-1-dev libpango1.0-dev fonts-noto-core
  libheif-dev libgif-dev libimagequant-dev
  libxcb1-dev libxcb-shm0-dev libxcb-randr0-dev libxcb-xfixes0-dev libxcb-xinput-dev libxcb-composite0-dev libxcb-xtest0-dev
  libpulse-dev libv4l-dev
  libwayland-dev wayland-protocols sway foot grim wtype mutter gnome-shell xdg-desktop-portal xdg-desktop-portal-gnome
  kwin-wayland xdg-desktop-portal-kde qtwayland5 python3-gi gir1.2-gtk-4.0
  libinput-dev libudev-dev
  qt6-base-dev qt6-qpa-plugins trayer openbox
  librsvg2-bin dpkg-dev desktop-file-utils appstream
  xvfb x11-utils xdotool pulseaudio pulseaudio-utils espeak-ng sox xclip
  libsimdjson-dev libutf8proc-dev
  libpocketsphinx-dev pocketsphinx-en-us flite libopenblas-dev zlib1g-dev libcurl4-openssl-dev libssl-dev python3-torch
  libpipewire-0.3-dev pipewire wireplumber gstreamer1.0-pipewire gstreamer1.0-tools gstreamer1.0-plugins-base
)

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${packages[@]}"

build_type=${BUILD_TYPE:-Release}
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE="$build_type" -DPLIM_WERROR=ON
cmake --build build -j"$(nproc)"

# The demo plim to try the commands on (README's main job): 20 s of a made-up desktop with
# speech, and its automatic edit kept as its plan.
build/src/plimctl demo demo >/dev/null
build/src/plimctl plan demo/Demo.mov --auto --write >/dev/null
