// SPDX-License-Identifier: MIT
#include "support/TestMain.h"

#include <QtCore/QCoreApplication>

int main(int argc, char** argv)
{
    return runTests<QCoreApplication>(argc, argv);
}
