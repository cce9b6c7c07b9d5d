-- kzqjobs: SQL Server Agent job summary. One row (see kzqjobd).
-- Reads: msdb.dbo.sysjobs, msdb.dbo.sysjobservers, msdb.dbo.sysjobactivity,
--        msdb.dbo.syssessions, msdb.dbo.sysjobhistory.
-- Needs: SELECT on those msdb tables (see README.md).
-- Counts of jobs: running now, queued now, enabled, whose last run failed / succeeded;
-- NUMJBADTOT counts the failed runs in the history msdb keeps; JOBSUCRATE is the
-- percentage of jobs that have run whose last run succeeded.
WITH agent_session AS (
    SELECT MAX(session_id) AS session_id FROM msdb.dbo.syssessions
),
activity AS (
    SELECT COUNT(CASE WHEN a.start_execution_date IS NOT NULL AND a.stop_execution_date IS NULL
                      THEN 1 END) AS running,
           COUNT(CASE WHEN a.queued_date IS NOT NULL AND a.start_execution_date IS NULL
                      THEN 1 END) AS queued
    FROM msdb.dbo.sysjobactivity AS a
    JOIN agent_session AS s ON s.session_id = a.session_id
),
outcomes AS (
    SELECT COUNT(CASE WHEN j.enabled = 1 THEN 1 END) AS enabled,
           COUNT(CASE WHEN js.last_run_date > 0 THEN 1 END) AS have_run,
           COUNT(CASE WHEN js.last_run_date > 0 AND js.last_run_outcome = 0 THEN 1 END) AS failed,
           COUNT(CASE WHEN js.last_run_date > 0 AND js.last_run_outcome = 1 THEN 1 END) AS succeeded
    FROM msdb.dbo.sysjobs AS j
    LEFT JOIN msdb.dbo.sysjobservers AS js ON js.job_id = j.job_id AND js.server_id = 0
),
history AS (
    SELECT COUNT(*) AS failed_runs
    FROM msdb.dbo.sysjobhistory
    WHERE step_id = 0 AND run_status = 0
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    a.running AS NUMJRUNCUR,
    o.failed AS NUMJBADCUR,
    h.failed_runs AS NUMJBADTOT,
    o.enabled AS ACTJOBS,
    o.failed AS FAILJOBS,
    o.succeeded * 100 / NULLIF(o.have_run, 0) AS JOBSUCRATE,
    a.queued AS QJOBS,
    o.succeeded AS SUCCJOBS
FROM outcomes AS o
CROSS JOIN activity AS a
CROSS JOIN history AS h;
