// @@@BUILDINFO@@@ OrvelTools 12.3.4.5 release
// Copyright Orvel. All rights reserved.
#target orvel
function main() {
    return 0;
}
main();
