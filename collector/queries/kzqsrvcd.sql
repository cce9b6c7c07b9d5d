-- kzqsrvcd: services of this instance. One row per service sys.dm_server_services knows:
-- the Database Engine, SQL Server Agent, Full-Text and (2017 and later) Launchpad.
-- Reads: sys.dm_server_services.
-- Needs: VIEW SERVER STATE.
-- SRVCSTATE: 1 stopped, 2 start pending, 3 stop pending, 4 running, 5 continue pending,
-- 6 pause pending, 7 paused. STARTMODE: 0 and 1 other, 2 automatic, 3 manual, 4 disabled.
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    servicename AS SRVCNAME,
    status AS SRVCSTATE,
    startup_type AS STARTMODE
FROM sys.dm_server_services
ORDER BY servicename;
