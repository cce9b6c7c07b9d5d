-- kzqjobd: SQL Server Agent jobs. One row per job (TOP (@max_rows) by name).
-- Reads: msdb.dbo.sysjobs, msdb.dbo.sysjobservers, msdb.dbo.syscategories,
--        msdb.dbo.sysjobactivity, msdb.dbo.syssessions, msdb.dbo.sysjobhistory.
-- Needs: SELECT on those msdb tables (see README.md).
-- CURSTATUS: 1 executing, 2 queued, 4 idle (in the Agent's current session).
-- LSTRUNSTAT: last outcome as the Agent keeps it (0 failed, 1 succeeded, 3 canceled,
-- 5 unknown); JOBSTATNUM: status of the newest job outcome in the history (0 failed,
-- 1 succeeded, 2 retry, 3 canceled, 4 in progress). JOBDUR: seconds the last run took.
-- JOBERRCODE: error number of the newest step in the history (0: none).
WITH agent_session AS (
    SELECT MAX(session_id) AS session_id FROM msdb.dbo.syssessions
),
activity AS (
    SELECT a.job_id, a.queued_date, a.start_execution_date, a.stop_execution_date,
           a.next_scheduled_run_date
    FROM msdb.dbo.sysjobactivity AS a
    JOIN agent_session AS s ON s.session_id = a.session_id
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    j.name AS JOBNAME,
    CAST(j.job_id AS nvarchar(64)) AS JOBID,
    j.enabled AS JOBENABLED,
    CASE WHEN a.start_execution_date IS NOT NULL AND a.stop_execution_date IS NULL THEN 1
         WHEN a.queued_date IS NOT NULL AND a.start_execution_date IS NULL THEN 2
         ELSE 4 END AS CURSTATUS,
    CASE WHEN js.last_run_date > 0
         THEN DATEADD(second, js.last_run_time / 10000 * 3600 + js.last_run_time / 100 % 100 * 60
                              + js.last_run_time % 100,
                      CONVERT(datetime, CAST(js.last_run_date AS char(8)), 112)) END AS LSTRUNTIME,
    CASE WHEN js.last_run_date > 0 THEN js.last_run_outcome END AS LSTRUNSTAT,
    a.next_scheduled_run_date AS NXTRUNTIME,
    j.category_id AS JOBCATID,
    c.name AS JOBCATNAME,
    outcome.run_status AS JOBSTATNUM,
    CASE WHEN js.last_run_date > 0
         THEN js.last_run_duration / 10000 * 3600 + js.last_run_duration / 100 % 100 * 60
              + js.last_run_duration % 100 END AS JOBDUR,
    CAST(step.sql_message_id AS nvarchar(8)) AS JOBERRCODE
FROM msdb.dbo.sysjobs AS j
LEFT JOIN msdb.dbo.sysjobservers AS js ON js.job_id = j.job_id AND js.server_id = 0
LEFT JOIN msdb.dbo.syscategories AS c ON c.category_id = j.category_id
LEFT JOIN activity AS a ON a.job_id = j.job_id
OUTER APPLY (
    SELECT TOP (1) h.run_status
    FROM msdb.dbo.sysjobhistory AS h
    WHERE h.job_id = j.job_id AND h.step_id = 0
    ORDER BY h.instance_id DESC
) AS outcome
OUTER APPLY (
    SELECT TOP (1) h.sql_message_id
    FROM msdb.dbo.sysjobhistory AS h
    WHERE h.job_id = j.job_id AND h.step_id > 0
    ORDER BY h.instance_id DESC
) AS step
ORDER BY j.name;
