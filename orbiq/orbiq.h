#pragma once

/// @file
/// All that an application needs of the library.
///
///     orbiq::HostApplication::describe({.bundleIdentifier = "tv.example.player",
///                                       .bundleName = "Player",
///                                       .shortVersion = "4.2",
///                                       .authorizationServer = "https://auth.example/tag/"});
///     auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("ABC");
///     tagger->sendHit();

#include "orbiq/orbiqVersion.h"
#include "orbiq/private/orbiqAgent/Statistics.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/private/orbiqTimer/orbiqTimer.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "orbiq/public/orbiqTagger/orbiqTagger.h"
#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/orbiqReachability/orbiqReachability.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/keychain/Keychain.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"
