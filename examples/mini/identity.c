/* SPDX-License-Identifier: Apache-2.0 */
/* Where does this process run? */
#include <stdio.h>
#include <utils/identity.h>

int main(void) {
    if (setMySwitch(2) != 0)
        return 1;
    printf("node %d (peer %d), switch %d, slot %d, pic %d\n", myNode(), peerNode(), getMySwitch(),
           getMySlot(), getMyPic());
    return getMySwitch() == 2 && myNode() + peerNode() == 11 ? 0 : 1;
}
