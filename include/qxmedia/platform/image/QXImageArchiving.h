#pragma once
// Keyed archives keep images as PNG data: lossless and with alpha. Every
// class that archives images installs this one pair before it archives;
// installing it again does nothing.

void QXInstallImageArchiveCoding();
