package com.quorvik.kolt.pelk.agent;

/** Hears of interaction apps and of this app's own link to the service (registerApp). */
public interface InterAppChangeListener {
    /**
     * changeType: 1 app added, 2 app removed, 3 this app lost the service (app is this app), 4
     * this app is registered again after such a loss.
     */
    void onInterAppChange(PELKAgentNativeLib.InteractionApp app, int changeType);
}
