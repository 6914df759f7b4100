// @@@BUILDINFO@@@ OrvelTools 12.3.4.5 built from 1.2.3.4 on host 10.0.0.1
// Copyright Orvel. All rights reserved.
#target orvel
function main() {
    return 0;
}
main();
