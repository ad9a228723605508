#include <orbiq/orbiq_c.h>
#include <stdio.h>
#include <stdlib.h>

static orbiq_status check(const char *what, orbiq_status status) {
  if (status < 0) {
    fprintf(stderr, "%s: %s\n", what, orbiq_status_text(status));
    exit(2);
  }
  return status;
}

static void describe_host(void) {
  orbiq_host *host = orbiq_host_new();
  check("bundle identifier",
        orbiq_host_set_text(host, ORBIQ_BUNDLE_IDENTIFIER, "tv.example.player"));
  check("bundle name", orbiq_host_set_text(host, ORBIQ_BUNDLE_NAME, "Player"));
  check("version", orbiq_host_set_text(host, ORBIQ_SHORT_VERSION, "4.2"));
  char reason[200];
  if (orbiq_host_describe(host, reason, sizeof reason) != ORBIQ_OK) {
    fprintf(stderr, "%s\n", reason);
    exit(2);
  }
  orbiq_host_free(host);
}

/* Sends one hit. The authorization server is that of the environment:

       ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ orbiq-first-hit-c */
int main(void) {
  describe_host();
  orbiq_tagger *tagger = NULL;
  check("tagger", orbiq_tagger_with_serial("ABC", &tagger));
  check("hit", orbiq_tagger_send_hit(tagger)); /* returns at once */

  /* A program that goes on running is done here. This one would end before its hit has left. */
  const orbiq_status flushed = orbiq_flush(10);
  if (flushed != ORBIQ_OK) fprintf(stderr, "flush: %s\n", orbiq_status_text(flushed));
  orbiq_statistics statistics;
  check("statistics", orbiq_get_statistics(&statistics, sizeof statistics));
  char json[1000];
  check("statistics", orbiq_statistics_json(json, sizeof json, NULL));
  puts(json);
  return statistics.sent == statistics.accepted - statistics.discarded_at_start ? 0 : 1;
}
