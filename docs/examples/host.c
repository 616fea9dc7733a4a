/* A C host: asks for consent once, reports that the tool ran, and waits for delivery. */
#include <stdio.h>

#include <usemeter/usemeter.h>

int main(void)
{
    statistic_handle_t* stat = usemeter_create_statistic("mytool", "1.0.0");

    if (usemeter_should_ask_user_consent(stat)) {
        char answer[16] = "";
        printf("Send anonymous usage statistics to help improve mytool? [y/N] ");
        fflush(stdout);
        if (fgets(answer, sizeof answer, stdin) == NULL)
            answer[0] = '\0';
        usemeter_set_statistic_collection_enabled(stat, answer[0] == 'y' || answer[0] == 'Y');
    }

    /* "run.<tool>" needs no whitelist entry; other names must match one. */
    usemeter_notify_feature_usage(stat, "run.mytool");

    /* ... the tool's real work ... */

    usemeter_destroy_statistic(stat); /* waits until every reported hit was attempted */
    return 0;
}
